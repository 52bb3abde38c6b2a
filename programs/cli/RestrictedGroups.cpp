#include "RestrictedGroups.h"

#include <cstddef>
#include <string>

#include "StandardStreams.h"
#include "settings/server/GroupDiscriminator.h"

namespace korlo::settings::cli
{

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
