#include "settings/server/UserLayerChange.h"

#include <string>

namespace korlo::settings::server
{

void UserLayerChange::Append(const UserLayerChange& later)
{
    for (const std::string& group : later.removed)
    {
        merged.RemoveGroup(group);
        removed.insert(group);
    }
    merged.MergeSettings(later.merged);
}

void UserLayerChange::ApplyTo(core::IniFile& layer) const
{
    for (const std::string& group : removed)
    {
        layer.RemoveGroup(group);
    }
    layer.MergeSettings(merged);
}

}  // namespace korlo::settings::server
