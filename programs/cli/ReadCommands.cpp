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
    const IniFile settings = Session(invocation.target, Session::Reading).Read({locator.group});
    if (!settings.HasValue(locator.group, locator.key))
    {
        throw Failure(StatusNo, "there is no setting " + Quoted(operand));
    }
    const std::string& value = settings.GetValue(locator.group, locator.key);
    WriteOutput(invocation.asJson ? JsonOf(value) : value + '\n');
    return StatusDone;
}

/// Reads whole groups, and single keys of others.
IniFile ReadSelected(const Invocation& invocation)
{
    common::GroupNameMatcher whole;
    std::vector<SettingLocator> single;
    GroupNameCollection groups;
    for (const std::string& operand : invocation.operands)
    {
        if (IsLocator(operand))
        {
            groups.insert(single.emplace_back(ParseLocator(operand)).group);
        }
        else
        {
            groups.insert(operand);
            whole.AddNameOrPattern(operand);
        }
    }
    const IniFile settings = Session(invocation.target, Session::Reading).Read(groups);
    IniFile selected;
    whole.MergeMatchingGroups(settings, selected);
    for (const SettingLocator& locator : single)
    {
        if (settings.HasValue(locator.group, locator.key))
        {
            selected.SetValue(locator.group, locator.key, settings.GetValue(locator.group, locator.key));
        }
    }
    return selected;
}

/// What `check` prints, in both forms.
struct BadLines
{
    std::string text;
    nlohmann::json values = nlohmann::json::array();
};

/// False when the file cannot be read.
bool Check(const std::string& file, BadLines& found)
{
    try
    {
        for (const IniFile::BadLine& line : IniFile::FindBadLines(file.c_str()))
        {
            found.text += file + ':' + std::to_string(line.number) + ": " + line.reason + '\n';
            found.values.push_back({{"file", file}, {"line", line.number}, {"message", line.reason}});
        }
        return true;
    }
    catch (const osa::Exception& error)
    {
        WriteMessage(Reason(error.what()));
        return false;
    }
}

}  // namespace

ExitStatus RunGet(const Invocation& invocation)
{
    if (invocation.operands.size() == 1 && IsLocator(invocation.operands.front()))
    {
        return PrintValue(invocation);
    }
    const IniFile settings = ReadSelected(invocation);
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
    const IniFile settings = Session(invocation.target, Session::Reading).Read({pattern});
    const GroupNameCollection names = common::GroupNamesOf(settings);
    if (names.empty() && !invocation.operands.empty())
    {
        FailForNoMatch(invocation.operands);
    }
    WriteOutput(invocation.asJson ? JsonOf(names) : LinesOf(names));
    return StatusDone;
}

ExitStatus RunDump(const Invocation& invocation)
{
    const std::string text = Session(invocation.target, Session::Reading).Dump(invocation.all);
    WriteOutput(invocation.asJson ? JsonOf(ReadQuietly(text)) : text);
    return StatusDone;
}

ExitStatus RunSubscribed(const Invocation& invocation)
{
    const GroupNameCollection groups = Session(invocation.target, Session::Reading).GetSubscribedGroups();
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
    WriteOutput(invocation.asJson ? JsonOf(badLines.values) : badLines.text);
    if (!allRead)
    {
        return StatusUnusable;
    }
    return badLines.values.empty() ? StatusDone : StatusNo;
}

}  // namespace korlo::settings::cli
