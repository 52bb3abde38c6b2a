#pragma once
// The users and groups that the system knows.

#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

namespace korlo::daemon
{

/// Where rules get the ids behind names from. Tests bring their own.
///
/// Thread safety: all methods, from any thread.
class IUserDatabase
{
public:
    virtual ~IUserDatabase() = default;

    /// The id of the user of that name; nothing when there is none, or when the database cannot be asked.
    virtual std::optional<uid_t> FindUser(const std::string& name) const = 0;
    virtual std::optional<gid_t> FindGroup(const std::string& name) const = 0;

    /// The groups that a session of the user gets, its own first; none for an id that the database does not know.
    virtual std::vector<gid_t> GetGroupsOf(uid_t user) const = 0;

    /// What the kernel shows instead of an id that means nothing here, such as one of another user namespace.
    virtual uid_t GetOverflowUser() const = 0;
    virtual gid_t GetOverflowGroup() const = 0;
};

}  // namespace korlo::daemon
