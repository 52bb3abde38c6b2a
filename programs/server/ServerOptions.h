#pragma once
// The command line of the server.

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "EarlyExit.h"
#include "ServerLimits.h"
#include "journal/Journal.h"
#include "saving/UserFile.h"

namespace korlo::daemon
{

/// What the command line says.
///
/// Thread safety: none of its own; the owner guards it.
struct ServerOptions
{
    /// What --listen says, as TcpListener takes it.
    struct Door
    {
        std::string address;  ///< without the square brackets of an IPv6 address, or unix:PATH
        unsigned short port;  ///< 0 picks a free one; of a path it is 0
    };

    static const Door& DefaultDoor();

    std::vector<Door> listen;                ///< empty: the default, unless sockets were passed
    unsigned int socketMode = 0660;          ///< of the files of Unix-domain sockets that --listen names
    std::optional<std::string> socketGroup;  ///< a name or digits; none: the process's own
    std::string controlPath;                 ///< empty: none, unless one was passed
    std::vector<std::string> defaults;
    std::string userPath = "/var/lib/korlo-settings/user.ini";
    bool userPathIsGiven = false;  ///< else it is used only where its folder exists
    std::vector<std::string> restricted;
    std::vector<std::string> access;  ///< empty: everybody may do everything
    bool checksOnly = false;          ///< read every file, open nothing, and end
    unsigned int saveDelayMs = 0;
    SaveBy saveBy = SaveBy::Replacing;
    std::size_t journal = Journal::UsualEntries;  ///< entries; 0: no journal
    ServerLimits limits;
    int logLevel = 2;
};

/// Reads the command line.
/// @throws EarlyExit with status 2 and one line that names the option for a wrong one; with status 0 and the text that
///         --help or --version asks for.
ServerOptions ParseOptions(int argc, const char* const* argv);

}  // namespace korlo::daemon
