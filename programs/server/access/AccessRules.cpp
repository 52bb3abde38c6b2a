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

bool IsAboutPeerOf(const AccessRule& rule, const ClientIdentity& client)
{
    return client.isUnix ? rule.isAboutUnix : rule.isAboutTcp;
}

}  // namespace

bool AccessRule::IsAbout(const ClientIdentity& client) const
{
    if (!IsAboutPeerOf(*this, client))
    {
        return false;
    }
    return isAboutEverybody || (client.user && Holds(users, *client.user)) ||
           std::any_of(groups.begin(), groups.end(), [&client](gid_t group) { return Holds(client.groups, group); });
}

bool AccessRule::MayBeAbout(const ClientIdentity& client) const
{
    return IsAbout(client) || (IsAboutPeerOf(*this, client) && !client.areGroupsComplete && !groups.empty());
}

}  // namespace korlo::daemon
