#pragma once
// A user database for tests.

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "access/IUserDatabase.h"

namespace korlo
{

/// Knows whom a test tells it of. 65534 is the overflow user and group, as "nobody" and "nogroup".
///
/// Thread safety: none of its own; the owner guards it.
class FakeUsers : public daemon::IUserDatabase
{
public:
    std::optional<uid_t> FindUser(const std::string& name) const override { return Find(users, name); }
    std::optional<gid_t> FindGroup(const std::string& name) const override { return Find(groups, name); }

    std::vector<gid_t> GetGroupsOf(uid_t user) const override
    {
        const auto found = groupsOf.find(user);
        return found == groupsOf.end() ? std::vector<gid_t>() : found->second;
    }

    uid_t GetOverflowUser() const override { return 65534; }
    gid_t GetOverflowGroup() const override { return 65534; }

    std::map<std::string, uid_t> users = {{"root", 0}, {"www-data", 33}, {"service", 1001}, {"nobody", 65534}};
    std::map<std::string, gid_t> groups = {{"root", 0}, {"www-data", 33}, {"engineers", 2000}, {"nogroup", 65534}};
    std::map<uid_t, std::vector<gid_t>> groupsOf = {{33, {33}}, {1001, {1001, 2000}}};

private:
    template <typename Id>
    static std::optional<Id> Find(const std::map<std::string, Id>& ids, const std::string& name)
    {
        const auto found = ids.find(name);
        return found == ids.end() ? std::nullopt : std::optional(found->second);
    }
};

}  // namespace korlo
