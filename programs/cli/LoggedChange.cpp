#include "LoggedChange.h"

#include <optional>

#include "ControlProtocol.h"
#include "Failure.h"
#include "IniText.h"
#include "NumberText.h"

namespace korlo::settings::cli
{
namespace
{

using Values = core::IniFile::KeyValueMap;

[[noreturn]] void FailOn(const std::string& text)
{
    throw Failure(StatusUnusable,
                  "the server's control door gave an answer that makes no sense: it holds " + Quoted(text),
                  "is the server of the same version as this program?");
}

std::uint64_t NumberOf(const std::string& text)
{
    const std::optional<std::uint64_t> number = NumberIn<std::uint64_t>(text);
    if (!number)
    {
        FailOn(text);
    }
    return *number;
}

std::string Said(const Values& values, const std::string& key)
{
    const std::string* const pValue = values.Lookup(key);
    return pValue != nullptr ? *pValue : std::string();
}

std::uint64_t SaidNumber(const Values& values, const std::string& key)
{
    const std::string* const pValue = values.Lookup(key);
    return pValue != nullptr ? NumberOf(*pValue) : 0;
}

/// Where the group of "[Group]Key" ends; its name may be in double quotes, with anything in them.
std::size_t EndOfGroup(std::string_view locator)
{
    if (!locator.starts_with("[\""))
    {
        return locator.find(']');
    }
    for (std::size_t place = 2; place < locator.size(); ++place)
    {
        if (locator[place] == '\\')
        {
            ++place;
        }
        else if (locator[place] == '"')
        {
            return locator.find(']', place);
        }
    }
    return std::string_view::npos;
}

}  // namespace

LoggedChange::LoggedChange(const std::string& group, const Values& values)
    : time(Said(values, "time")),
      peer(Said(values, "peer")),
      user(Said(values, "user")),
      process(SaidNumber(values, "pid")),
      program(Said(values, "program")),
      operation(Said(values, "operation")),
      outcome(Said(values, "outcome")),
      count(SaidNumber(values, "count")),
      more(SaidNumber(values, "more")),
      moreGroups(SaidNumber(values, "more.groups"))
{
    if (!group.starts_with(control::ChangePrefix))
    {
        FailOn(group);
    }
    number = NumberOf(group.substr(control::ChangePrefix.size()));
    for (std::string key = "group.1"; values.contains(key); key = "group." + std::to_string(groups.size() + 1))
    {
        groups.push_back(Said(values, key));
    }
    std::size_t next = 1;
    for (std::string key = "key.1"; values.contains(key); key = "key." + std::to_string(++next))
    {
        AddKey(Said(values, key));
    }
}

void LoggedChange::AddKey(std::string_view locator)
{
    const std::size_t end = EndOfGroup(locator);
    if (!locator.starts_with('[') || end == std::string_view::npos)
    {
        FailOn(std::string(locator));
    }
    const std::optional<std::string> group = control::UnquotedName(std::string(locator.substr(1, end - 1)));
    if (!group)
    {
        FailOn(std::string(locator));
    }
    keys[*group].emplace_back(locator.substr(end + 1));
}

/// As the server's own log names its clients.
std::string LoggedChange::GetAuthor() const
{
    if (!peer.starts_with("unix:"))
    {
        return peer.empty() ? "the server itself" : peer;
    }
    return "user " + (user.empty() ? "unknown" : NameToken(user)) + ", pid " + std::to_string(process) + " (" +
           NameToken(program) + ")";
}

std::string LoggedChange::GetText() const
{
    std::string text = time + "  " + GetAuthor() + "  " + operation;
    text += outcome == "done" ? " " : " " + outcome + " ";
    std::string separator = " ";
    const auto add = [&text, &separator](const std::string& name) {
        text += separator + name;
        separator = ", ";
    };
    for (const std::string& group : groups)
    {
        const std::string prefix = '[' + NameToken(group) + ']';
        const auto entry = keys.find(group);
        if (entry == keys.end())
        {
            add(prefix);
            continue;
        }
        for (const std::string& key : entry->second)
        {
            add(prefix + NameToken(key));
        }
    }
    if (more > 0)
    {
        text += (separator == " " ? " " : " and ") + std::to_string(more) + " more";
    }
    return count > 1 ? text + "  (" + std::to_string(count) + " times)" : text;
}

}  // namespace korlo::settings::cli
