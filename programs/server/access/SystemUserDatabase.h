#pragma once
// The system's own user database.

#include "access/IUserDatabase.h"

namespace korlo::daemon
{

/// Asks getpwnam, getgrnam and their like each time, so what comes from the network is waited for.
///
/// Thread safety: as IUserDatabase; the overflow ids are read at construction.
class SystemUserDatabase : public IUserDatabase
{
public:
    SystemUserDatabase();

    std::optional<uid_t> FindUser(const std::string& name) const override;
    std::optional<gid_t> FindGroup(const std::string& name) const override;
    std::vector<gid_t> GetGroupsOf(uid_t user) const override;
    uid_t GetOverflowUser() const override { return _overflowUser; }
    gid_t GetOverflowGroup() const override { return _overflowGroup; }

private:
    const uid_t _overflowUser;
    const gid_t _overflowGroup;
};

/// The user's name in the system's database, or the digits of one that has none there.
std::string NameOfUser(uid_t user);

}  // namespace korlo::daemon
