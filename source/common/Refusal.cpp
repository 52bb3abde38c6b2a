#include "common/Refusal.h"

#include <utility>

namespace korlo::settings::common
{

std::optional<Refusal> Refusal::FindIn(const core::IniFile& answer)
{
    const auto group = answer.Find(RefusedGroup);
    if (group == answer.end())
    {
        return std::nullopt;
    }
    std::optional<Refusal> refusal;
    GroupNameCollection names;
    for (const auto& [key, value] : group->second)
    {
        if (key == RefusedOperationKey)
        {
            refusal.emplace().operation = value;
        }
        else if (key.starts_with(RefusedNameKey))
        {
            names.insert(value);
        }
    }
    if (refusal)
    {
        refusal->groups = std::move(names);
    }
    return refusal;
}

}  // namespace korlo::settings::common
