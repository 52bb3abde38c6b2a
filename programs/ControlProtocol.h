#pragma once
// What the server's control door and the tool that asks it say to each other (docs/server.md, "The control door").

#include <optional>
#include <string>
#include <string_view>

#include "korlo/core/IniFile.h"

namespace korlo::control
{

inline constexpr const char* DefaultPath = "/run/korlo-settings/control";

// A request is one line: a word, and its operands behind blanks.
inline constexpr const char* Status = "status";               // no operand
inline constexpr const char* Clients = "clients";             // no operand
inline constexpr const char* Save = "save";                   // no operand
inline constexpr const char* AccessCheck = "access-check";    // USER read|change GROUP
inline constexpr const char* AccessReload = "access-reload";  // no operand
inline constexpr const char* Journal = "journal";             // [N]
inline constexpr const char* Follow = "follow";               // [NUMBER]; answered again and again

inline constexpr const char* Read = "read";
inline constexpr const char* Change = "change";

// The answer is Ok, an INI document and EndOfAnswer, a line each; or one line: ErrorPrefix and a message.
inline constexpr const char* Ok = "ok";
inline constexpr const char* EndOfAnswer = ".";
inline constexpr std::string_view ErrorPrefix = "error ";

// An entry of the journal is a group: ChangePrefix and its number, in ten digits or more.
inline constexpr std::string_view ChangePrefix = "Change/";

/// How the message begins that answers a question about a user whom the system does not know.
inline constexpr std::string_view UnknownUser = "unknown user ";

/// What the door itself answers, whatever was asked, to a client too many; and how it begins for a word that it does
/// not know.
inline constexpr std::string_view TooManyClients = "eight clients are connected already; try again";
inline constexpr std::string_view UnknownWord = "unknown word ";

/// The group's name that is the last operand of a request: as it stands, or in double quotes, as INI text quotes names,
/// where a line cannot carry it otherwise. Nothing when its quotes make no sense.
inline std::optional<std::string> UnquotedName(const std::string& operand)
{
    if (!operand.starts_with('"'))
    {
        return operand;
    }
    core::IniFile document;
    document.LoadFromString('[' + operand + "]\n");
    return document.size() == 1 ? std::optional(document.begin()->first) : std::nullopt;
}

}  // namespace korlo::control
