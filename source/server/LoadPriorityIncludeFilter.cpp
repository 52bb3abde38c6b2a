#include "settings/server/LoadPriorityIncludeFilter.h"

#include "korlo/core/StringUtil.h"
#include "settings/server/GroupDiscriminator.h"

namespace korlo::settings::server
{
namespace
{

using PriorityMap = std::map<std::string, int>;

constexpr const char* LoadPriorityGroup = "KorloSettings/LoadPriority";

PriorityMap ReadClaims(const core::IniFile& ini)
{
    PriorityMap declared;
    const auto group = ini.Find(LoadPriorityGroup);
    if (group == ini.end())
    {
        return declared;
    }
    for (const auto& [name, text] : group->second)
    {
        int priority = 0;
        if (core::StringUtil::TryParse(text, priority) && !GroupDiscriminator::IsRestrictedGroup(name))
        {
            declared[name] = priority;
        }
    }
    return declared;
}

}  // namespace

void LoadPriorityIncludeFilter::FilterIni(core::IniFile& ini)
{
    const PriorityMap declared = ReadClaims(ini);
    for (const auto& [name, priority] : _priorities)
    {
        const auto claim = declared.find(name);
        if (claim == declared.end() || claim->second < priority)
        {
            ini.RemoveGroup(name);
        }
    }
    // Only now: a document's claims are compared with those before it, never with themselves.
    MergePriorities(declared);
    ini.RemoveGroup(LoadPriorityGroup);
}

void LoadPriorityIncludeFilter::MergePriorities(const PriorityMap& priorities)
{
    for (const auto& [name, priority] : priorities)
    {
        const auto [entry, added] = _priorities.try_emplace(name, priority);
        if (!added && entry->second < priority)
        {
            entry->second = priority;
        }
    }
}

}  // namespace korlo::settings::server
