#include "Operands.h"

#include "Failure.h"
#include "StandardStreams.h"
#include "korlo/osa/Exception.h"
#include "settings/common/GroupNameMatcher.h"

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

GroupNameCollection GroupsOf(const core::IniFile& document)
{
    GroupNameCollection names;
    for (const auto& [name, values] : document)
    {
        names.insert(names.end(), name);
    }
    return names;
}

core::IniFile SelectGroups(const core::IniFile& document, const GroupNameCollection& namesAndPatterns)
{
    common::GroupNameMatcher matcher;
    matcher.AddNamesAndPatterns(namesAndPatterns);
    GroupNameCollection matched;
    matcher.GetMatchingGroups(document, matched);
    core::IniFile selected;
    for (const std::string& group : matched)
    {
        selected.MergeSettings(document, group);
    }
    return selected;
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

}  // namespace korlo::settings::cli
