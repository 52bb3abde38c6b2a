#pragma once
// Who a client is, as access rules see it.

#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

#include "access/IUserDatabase.h"

namespace korlo::daemon
{

/// Taken when the client is accepted.
///
/// Thread safety: none of its own; the owner guards it.
struct ClientIdentity
{
    std::optional<uid_t> user;  ///< none where the kernel names none: on TCP, and for a foreign user namespace
    std::vector<gid_t> groups;  ///< all of them, in any order
    bool isUnix = false;        ///< came over a Unix-domain socket

    /// False where the kernel did not tell all groups of the client: it may be in any.
    bool areGroupsComplete = true;
};

/// The id of what is named: digits are an id, whether the database knows it or not, anything else is a name.
/// @return nothing for an unknown name, and for a number that no process can have.
std::optional<uid_t> UserIdOf(const std::string& nameOrDigits, const IUserDatabase& users);
std::optional<gid_t> GroupIdOf(const std::string& nameOrDigits, const IUserDatabase& users);

/// A client on a Unix-domain socket as the user would be one, with the groups that the database gives it.
/// @return nothing for an unknown user.
std::optional<ClientIdentity> IdentityOf(const std::string& userOrDigits, const IUserDatabase& users);

}  // namespace korlo::daemon
