#include "Operands.h"

#include <algorithm>
#include <iterator>

#include "StandardStreams.h"
#include "korlo/osa/Exception.h"
#include "settings/server/GroupDiscriminator.h"

namespace korlo::settings::cli
{
namespace
{

std::string QuotedList(const std::vector<std::string>& names)
{
    std::string list;
    for (const std::string& name : names)
    {
        list += (list.empty() ? "" : ", ") + Quoted(name);
    }
    return list;
}

}  // namespace

SettingLocator ParseLocator(const std::string& text)
{
    try
    {
        return SettingLocator(text);
    }
    catch (const osa::Exception&)
    {
        throw Failure(StatusWrongCommandLine, Quoted(text) + " does not name a setting",
                      "a setting is written as '[Group]Key', in quotes for the shell's sake");
    }
}

core::IniFile ReadDocument(const std::string& path)
{
    try
    {
        core::IniFile document;
        if (path == "-")
        {
            document.LoadFromString(ReadInput());
        }
        else
        {
            document.Load(path.c_str());
        }
        return document;
    }
    catch (const osa::Exception& error)
    {
        throw Failure(StatusUnusable, Reason(error.what()));
    }
}

GroupNameCollection NamesOf(const std::vector<std::string>& operands)
{
    return GroupNameCollection(operands.begin(), operands.end());
}

void FailForNoMatch(const std::vector<std::string>& operands)
{
    throw Failure(StatusNo, "no group matches " + QuotedList(operands));
}

ExitStatus ReportRestricted(const GroupNameCollection& groups)
{
    std::vector<std::string> restricted;
    std::ranges::copy_if(groups, std::back_inserter(restricted), server::GroupDiscriminator::IsRestrictedGroup);
    if (restricted.empty())
    {
        return StatusDone;
    }
    WriteMessage("restricted groups cannot be changed: " + QuotedList(restricted));
    return restricted.size() == groups.size() ? StatusNo : StatusDone;
}

}  // namespace korlo::settings::cli
