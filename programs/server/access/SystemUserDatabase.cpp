#include "access/SystemUserDatabase.h"

#include <cerrno>
#include <fstream>

#include <grp.h>
#include <pwd.h>

namespace korlo::daemon
{
namespace
{

constexpr std::size_t MostBytes = 1024 * 1024;  // of one entry; a group has a line for all its members

/// Calls one of the family of getpwnam_r with more and more room, until the entry fits in.
/// @return the entry, or null when there is none. Its strings live in `room`.
template <typename Entry, typename Lookup>
const Entry* Find(Entry& entry, std::vector<char>& room, const Lookup& lookUp)
{
    for (room.resize(1024); room.size() <= MostBytes; room.resize(room.size() * 4))
    {
        Entry* pFound = nullptr;
        const int error = lookUp(&entry, room.data(), room.size(), &pFound);
        if (error != ERANGE && error != EINTR)
        {
            return error == 0 ? pFound : nullptr;
        }
    }
    return nullptr;
}

const struct passwd* FindById(uid_t user, struct passwd& entry, std::vector<char>& room)
{
    return Find(entry, room, [user](auto... rest) { return ::getpwuid_r(user, rest...); });
}

/// The number in a file of the kernel; where it says nothing, what all kernels have had.
unsigned int OverflowId(const char* path)
{
    constexpr unsigned int usual = 65534;
    std::ifstream in(path);
    unsigned int id = 0;
    in >> id;
    return in ? id : usual;
}

}  // namespace

SystemUserDatabase::SystemUserDatabase()
    : _overflowUser(OverflowId("/proc/sys/kernel/overflowuid")),
      _overflowGroup(OverflowId("/proc/sys/kernel/overflowgid"))
{
}

std::optional<uid_t> SystemUserDatabase::FindUser(const std::string& name) const
{
    struct passwd entry = {};
    std::vector<char> room;
    const struct passwd* const pFound =
        Find(entry, room, [&name](auto... rest) { return ::getpwnam_r(name.c_str(), rest...); });
    return pFound == nullptr ? std::nullopt : std::optional(pFound->pw_uid);
}

std::optional<gid_t> SystemUserDatabase::FindGroup(const std::string& name) const
{
    struct group entry = {};
    std::vector<char> room;
    const struct group* const pFound =
        Find(entry, room, [&name](auto... rest) { return ::getgrnam_r(name.c_str(), rest...); });
    return pFound == nullptr ? std::nullopt : std::optional(pFound->gr_gid);
}

std::vector<gid_t> SystemUserDatabase::GetGroupsOf(uid_t user) const
{
    struct passwd entry = {};
    std::vector<char> room;
    const struct passwd* const pFound = FindById(user, entry, room);
    std::vector<gid_t> groups;
    if (pFound == nullptr)
    {
        return groups;
    }
    int count = 64;
    int had = 0;
    do
    {
        groups.resize(static_cast<std::size_t>(count));
        had = count;
    } while (::getgrouplist(pFound->pw_name, pFound->pw_gid, groups.data(), &count) < 0 && count > had);
    groups.resize(static_cast<std::size_t>(count < had ? count : had));
    return groups;
}

std::string NameOfUser(uid_t user)
{
    struct passwd entry = {};
    std::vector<char> room;
    const struct passwd* const pFound = FindById(user, entry, room);
    return pFound != nullptr ? pFound->pw_name : std::to_string(user);
}

}  // namespace korlo::daemon
