#include "settings/server/GroupDiscriminator.h"

#include <algorithm>

namespace korlo::settings::server
{
namespace
{

bool IsSecureGroup(const std::string& groupName)
{
    return groupName.find("Secure") != std::string::npos;
}

template <typename Predicate>
void RemoveGroupsIf(core::IniFile& ini, const Predicate& predicate)
{
    for (auto group = ini.begin(); group != ini.end();)
    {
        group = predicate(group->first) ? ini.RemoveGroup(group) : std::next(group);
    }
}

}  // namespace

bool GroupDiscriminator::IsRestrictedGroup(const std::string& groupName)
{
    return IsSecureGroup(groupName) || groupName.find("Trusted") != std::string::npos;
}

void GroupDiscriminator::MergeUnrestrictedGroups(core::IniFile& target, const core::IniFile& source)
{
    for (const auto& [name, values] : source)
    {
        if (!IsRestrictedGroup(name))
        {
            target.MergeSettings(source, name);
        }
    }
}

void GroupDiscriminator::FilterOutRestrictedGroups(GroupNameCollection& names)
{
    std::erase_if(names, IsRestrictedGroup);
}

void GroupDiscriminator::FilterOutRestrictedGroups(core::IniFile& ini)
{
    RemoveGroupsIf(ini, IsRestrictedGroup);
}

void GroupDiscriminator::FilterOutSecureGroups(core::IniFile& ini)
{
    RemoveGroupsIf(ini, IsSecureGroup);
}

}  // namespace korlo::settings::server
