#pragma once
// What the server's control door and the tool that asks it say to each other (docs/server.md, "The control door").

#include <optional>
#include <sstream>
#include <string>
#include <string_view>

#include "korlo/core/IniFile.h"
#include "settings/SettingLocator.h"

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

inline constexpr const char* Explain = "explain";    // [GROUP]KEY
inline constexpr const char* Defaults = "defaults";  // no operand

inline constexpr const char* Read = "read";
inline constexpr const char* Change = "change";

// What explain answers: the value and where it is from, and each candidate for it, CandidateGroup and a number from 1.
inline constexpr const char* ExplainGroup = "Explain";
inline constexpr const char* CandidateGroup = "Candidate/";

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

/// A group's name as the last operand of a request: as it stands, or in double quotes, as INI text quotes names, where
/// a line cannot carry it otherwise.
inline std::string QuotedName(const std::string& name)
{
    // As the header of a group it is quoted for the same reasons, and for a few that do no harm here.
    core::IniFile document;
    document[name];
    std::ostringstream text;
    document.SaveToStream(text);
    const std::string header = text.str();  // "[NAME]" and a line break
    return header.substr(1, header.rfind(']') - 1);
}

/// The name behind such an operand; nothing when its quotes make no sense.
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

/// A setting as the operand of a request: "[GROUP]KEY", each of the two quoted as a name where it has to be.
inline std::string QuotedLocator(const settings::SettingLocator& locator)
{
    return '[' + QuotedName(locator.group) + ']' + QuotedName(locator.key);
}

/// Where the group of "[GROUP]KEY" ends, behind whatever its quotes hold; npos when it makes no sense.
inline std::size_t EndOfGroup(const std::string& locator)
{
    std::size_t end = 1;
    if (locator.starts_with("[\""))
    {
        for (end = 2; end < locator.size() && locator[end] != '"'; ++end)
        {
            end += locator[end] == '\\' ? 1 : 0;
        }
        ++end;
    }
    return locator.starts_with('[') ? locator.find(']', end) : std::string::npos;
}

/// The setting behind such an operand; nothing when it makes no sense.
inline std::optional<settings::SettingLocator> UnquotedLocator(const std::string& operand)
{
    const std::size_t end = EndOfGroup(operand);
    if (end == std::string::npos)
    {
        return std::nullopt;
    }
    const std::optional<std::string> group = UnquotedName(operand.substr(1, end - 1));
    const std::optional<std::string> key = UnquotedName(operand.substr(end + 1));
    return group && key ? std::optional(settings::SettingLocator(*group, *key)) : std::nullopt;
}

}  // namespace korlo::control
