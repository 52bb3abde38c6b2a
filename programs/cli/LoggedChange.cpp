#include "LoggedChange.h"

#include <optional>

#include "ControlAnswer.h"
#include "ControlProtocol.h"
#include "IniText.h"
#include "NumberText.h"

namespace korlo::settings::cli
{
namespace
{

using Values = core::IniFile::KeyValueMap;

[[noreturn]] void FailOn(const std::string& text)
{
    throw MakesNoSense("it holds " + Quoted(text));
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
    groups = NumberedValues(values, "group.");
    for (const std::string& locator : NumberedValues(values, "key."))
    {
        AddKey(locator);
    }
}

void LoggedChange::AddKey(const std::string& locator)
{
    const std::size_t end = control::EndOfGroup(locator);
    const auto group = end != std::string::npos ? control::UnquotedName(locator.substr(1, end - 1)) : std::nullopt;
    if (!group)
    {
        FailOn(locator);
    }
    keys[*group].push_back(locator.substr(end + 1));
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
