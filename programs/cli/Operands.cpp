#include "Operands.h"

#include "StandardStreams.h"
#include "korlo/osa/Exception.h"
#include "settings/server/GroupDiscriminator.h"

namespace korlo::settings::cli
{

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
    std::string names;
    for (const std::string& operand : operands)
    {
        names += (names.empty() ? "" : ", ") + Quoted(operand);
    }
    throw Failure(StatusNo, "no group matches " + names);
}

ExitStatus ReportRestricted(const GroupNameCollection& groups)
{
    std::string names;
    std::size_t count = 0;
    for (const std::string& name : groups)
    {
        if (server::GroupDiscriminator::IsRestrictedGroup(name))
        {
            names += (names.empty() ? "" : ", ") + Quoted(name);
            ++count;
        }
    }
    if (count == 0)
    {
        return StatusDone;
    }
    WriteMessage("restricted groups cannot be changed: " + names);
    return count == groups.size() ? StatusNo : StatusDone;
}

}  // namespace korlo::settings::cli
