#pragma once
// The command line of the server.

#include <exception>
#include <string>
#include <vector>

#include "ServerLimits.h"

namespace korlo::daemon
{

/// What the command line says.
///
/// Thread safety: none of its own; the owner guards it.
struct ServerOptions
{
    std::string address = "127.0.0.1";  ///< without the square brackets of an IPv6 address
    unsigned short port = 4711;
    std::vector<std::string> defaults;
    std::string userPath = "/var/lib/korlo-settings/user.ini";
    bool userPathIsGiven = false;  ///< else it is used only where its folder exists
    std::vector<std::string> restricted;
    unsigned int saveDelayMs = 0;
    ServerLimits limits;
    int logLevel = 2;
};

/// Ends the program before it has begun: a wrong command line, or a question that is answered.
///
/// Thread safety: as std::exception.
class EarlyExit : public std::exception
{
public:
    EarlyExit(int status, const std::string& text) : _status(status), _text(text) {}

    int GetStatus() const { return _status; }
    const char* what() const noexcept override { return _text.c_str(); }

private:
    int _status;
    std::string _text;
};

/// Reads the command line.
/// @throws EarlyExit with status 2 and one line that names the option for a wrong one; with status 0 and the text that
///         --help or --version asks for.
ServerOptions ParseOptions(int argc, const char* const* argv);

}  // namespace korlo::daemon
