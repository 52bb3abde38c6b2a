#include "settings/server/GroupDiscriminator.h"

#include <algorithm>
#include <string_view>

namespace korlo::settings::server
{
namespace
{

constexpr std::string_view Secure = "Secure";
constexpr std::string_view Trusted = "Trusted";

bool IsSecureGroup(const std::string& groupName)
{
    return groupName.find(Secure) != std::string::npos;
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

// One walk by hand: every change asks this of every group, and names are too short for two searches to pay.
bool GroupDiscriminator::IsRestrictedGroup(const std::string& groupName)
{
    std::string_view rest = groupName;
    for (; rest.size() >= Secure.size(); rest.remove_prefix(1))
    {
        const char first = rest.front();
        if ((first == 'S' && rest.starts_with(Secure)) || (first == 'T' && rest.starts_with(Trusted)))
        {
            return true;
        }
    }
    return false;
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
