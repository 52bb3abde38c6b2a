#include "Commands.h"
#include "IniText.h"
#include "Json.h"
#include "Operands.h"
#include "StandardStreams.h"
#include "korlo/osa/Exception.h"
#include "settings/common/GroupNameMatcher.h"

namespace korlo::settings::cli
{
namespace
{

using core::IniFile;

bool IsLocator(const std::string& operand)
{
    return operand.starts_with('[');
}

std::string LinesOf(const GroupNameCollection& names)
{
    std::string lines;
    for (const std::string& name : names)
    {
        lines += name + '\n';
    }
    return lines;
}

ExitStatus PrintValue(const Invocation& invocation)
{
    const std::string& operand = invocation.operands.front();
    const SettingLocator locator = ParseLocator(operand);
    Session session(invocation.target, Session::Reading);
    const IniFile settings = session.Read({locator.group});
    if (!settings.HasValue(locator.group, locator.key))
    {
        throw Failure(StatusNo, "there is no setting " + Quoted(operand));
    }
    const std::string& value = settings.GetValue(locator.group, locator.key);
    WriteOutput(invocation.asJson ? JsonOf(value) : value + '\n');
    return StatusDone;
}

/// What `get` is asked for: whole groups, and single keys of others.
struct Selection
{
    explicit Selection(const std::vector<std::string>& operands);

    IniFile From(const IniFile& settings) const;

    GroupNameCollection groups;  // of both
    GroupNameCollection whole;
    std::vector<SettingLocator> single;
};

Selection::Selection(const std::vector<std::string>& operands)
{
    for (const std::string& operand : operands)
    {
        if (IsLocator(operand))
        {
            groups.insert(single.emplace_back(ParseLocator(operand)).group);
        }
        else
        {
            groups.insert(operand);
            whole.insert(operand);
        }
    }
}

IniFile Selection::From(const IniFile& settings) const
{
    common::GroupNameMatcher matcher;
    matcher.AddNamesAndPatterns(whole);
    IniFile selected;
    matcher.MergeMatchingGroups(settings, selected);
    for (const SettingLocator& locator : single)
    {
        if (settings.HasValue(locator.group, locator.key))
        {
            selected.SetValue(locator.group, locator.key, settings.GetValue(locator.group, locator.key));
        }
    }
    return selected;
}

using BadLines = std::vector<std::pair<std::string, core::IniFile::BadLine>>;

/// False when the file cannot be read.
bool Check(const std::string& file, BadLines& found)
{
    try
    {
        for (const core::IniFile::BadLine& line : core::IniFile::FindBadLines(file.c_str()))
        {
            found.emplace_back(file, line);
        }
        return true;
    }
    catch (const osa::Exception& error)
    {
        WriteMessage(Reason(error.what()));
        return false;
    }
}

std::string TextOf(const BadLines& badLines)
{
    std::string text;
    for (const auto& [file, line] : badLines)
    {
        text += file + ':' + std::to_string(line.number) + ": " + line.reason + '\n';
    }
    return text;
}

}  // namespace

ExitStatus RunGet(const Invocation& invocation)
{
    if (invocation.operands.size() == 1 && IsLocator(invocation.operands.front()))
    {
        return PrintValue(invocation);
    }
    const Selection selection(invocation.operands);
    Session session(invocation.target, Session::Reading);
    const IniFile settings = selection.From(session.Read(selection.groups));
    if (settings.empty())
    {
        FailForNoMatch(invocation.operands);
    }
    WriteOutput(invocation.asJson ? JsonOf(settings) : TextOf(settings));
    return StatusDone;
}

ExitStatus RunList(const Invocation& invocation)
{
    const std::string pattern = invocation.operands.empty() ? "*" : invocation.operands.front();
    Session session(invocation.target, Session::Reading);
    const GroupNameCollection names = common::GroupNamesOf(session.Read({pattern}));
    if (names.empty() && !invocation.operands.empty())
    {
        FailForNoMatch(invocation.operands);
    }
    WriteOutput(invocation.asJson ? JsonOf(names) : LinesOf(names));
    return StatusDone;
}

ExitStatus RunDump(const Invocation& invocation)
{
    Session session(invocation.target, Session::Reading);
    const std::string text = session.Dump(invocation.all);
    WriteOutput(invocation.asJson ? JsonOf(ReadQuietly(text)) : text);
    return StatusDone;
}

ExitStatus RunSubscribed(const Invocation& invocation)
{
    Session session(invocation.target, Session::Reading);
    const GroupNameCollection groups = session.GetSubscribedGroups();
    WriteOutput(invocation.asJson ? JsonOf(groups) : LinesOf(groups));
    return StatusDone;
}

ExitStatus RunCheck(const Invocation& invocation)
{
    BadLines badLines;
    bool allRead = true;
    for (const std::string& file : invocation.operands)
    {
        allRead = Check(file, badLines) && allRead;
    }
    WriteOutput(invocation.asJson ? JsonOf(badLines) : TextOf(badLines));
    if (!allRead)
    {
        return StatusUnusable;
    }
    return badLines.empty() ? StatusDone : StatusNo;
}

}  // namespace korlo::settings::cli
