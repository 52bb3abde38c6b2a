#include "ControlAnswer.h"

#include "korlo/core/StringUtil.h"

namespace korlo::settings::cli
{

Failure MakesNoSense(const std::string& what)
{
    return Failure(StatusUnusable, "the server's control door gave an answer that makes no sense: " + what,
                   "is the server of the same version as this program?");
}

int NumberOf(const std::string& key, const std::string& value)
{
    int number = 0;
    if (!core::StringUtil::TryParse(value, number))
    {
        throw MakesNoSense(Quoted(key) + " is no number, but " + Quoted(value));
    }
    return number;
}

std::vector<std::string> NumberedGroups(const core::IniFile& answer, const std::string& prefix)
{
    std::vector<std::string> groups;
    for (std::string group = prefix + '1'; answer.HasGroup(group); group = prefix + std::to_string(groups.size() + 1))
    {
        groups.push_back(group);
    }
    return groups;
}

std::vector<std::string> NumberedValues(const core::IniFile::KeyValueMap& values, const std::string& prefix)
{
    std::vector<std::string> found;
    while (const std::string* const pValue = values.Lookup(prefix + std::to_string(found.size() + 1)))
    {
        found.push_back(*pValue);
    }
    return found;
}

}  // namespace korlo::settings::cli
