#include "settings/server/LoadPriorityIncludeFilter.h"

#include "korlo/core/Logger.h"
#include "korlo/core/StringUtil.h"
#include "settings/server/GroupDiscriminator.h"

namespace korlo::settings::server
{
namespace
{

using PriorityMap = std::map<std::string, int>;

constexpr const char* LoadPriorityGroup = "KorloSettings/LoadPriority";

PriorityMap ReadClaims(const core::IniFile& ini, const core::Logger& logger)
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
        if (GroupDiscriminator::IsRestrictedGroup(name))
        {
            logger.Trace("The claim for group '%s' is ignored: the group is restricted", name.c_str());
        }
        else if (!core::StringUtil::TryParse(text, priority))
        {
            logger.Trace("The claim for group '%s' is ignored: it is not an integer", name.c_str());
        }
        else
        {
            declared[name] = priority;
        }
    }
    return declared;
}

}  // namespace

void LoadPriorityIncludeFilter::FilterIni(core::IniFile& ini)
{
    const core::Logger& logger = *core::Logger::GetLogger("LoadPriorityIncludeFilter");
    const PriorityMap declared = ReadClaims(ini, logger);
    for (const auto& [name, priority] : _priorities)
    {
        const auto claim = declared.find(name);
        const bool isOutbid = claim == declared.end() || claim->second < priority;
        if (isOutbid && ini.HasGroup(name))
        {
            logger.Trace("Group '%s' is dropped: it was claimed with priority %d, and this document claims it with %s",
                         name.c_str(), priority,
                         claim == declared.end() ? "none" : std::to_string(claim->second).c_str());
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
