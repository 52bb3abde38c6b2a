#include "access/AccessRules.h"

#include <algorithm>

namespace korlo::daemon
{
namespace
{

template <typename Id>
bool Holds(const std::vector<Id>& ids, Id id)
{
    return std::find(ids.begin(), ids.end(), id) != ids.end();
}

}  // namespace

bool AccessRule::IsAbout(const ClientIdentity& client) const
{
    if (!(client.isUnix ? isAboutUnix : isAboutTcp))
    {
        return false;
    }
    return isAboutEverybody || (client.user && Holds(users, *client.user)) ||
           std::any_of(groups.begin(), groups.end(), [&client](gid_t group) { return Holds(client.groups, group); });
}

}  // namespace korlo::daemon
