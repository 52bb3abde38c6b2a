#include "osa/PeerIdentityReader.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#ifndef SO_PEERGROUPS
#define SO_PEERGROUPS 59
#endif

namespace korlo::osa
{
namespace
{

constexpr unsigned int UsualOverflowId = 65534;
constexpr unsigned int NoId = 0xFFFFFFFFu;  // of a socket that has no peer
constexpr std::size_t FirstGroups = 32;
constexpr std::size_t MostGroups = 65536;  // that the kernel lets a process have

/// The beginning of a file of /proc, which is a line; empty when it cannot be read.
std::string ReadLine(const std::string& path)
{
    const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (file < 0)
    {
        return {};
    }
    std::array<char, 64> bytes;
    const ssize_t length = read(file, bytes.data(), bytes.size());
    close(file);
    std::string line(bytes.data(), length > 0 ? static_cast<std::size_t>(length) : 0);
    if (!line.empty() && line.back() == '\n')
    {
        line.pop_back();
    }
    return line;
}

/// Tells the ids that stand for nobody. They are looked up each time: the setting may change.
class Nobody
{
public:
    explicit Nobody(const char* path)
    {
        const std::string text = ReadLine(path);
        std::from_chars(text.data(), text.data() + text.size(), _id);
    }

    bool operator()(unsigned int id) const { return id == _id || id == UsualOverflowId || id == NoId; }

private:
    unsigned int _id = UsualOverflowId;
};

/// False, with the groups unchanged, when the system does not tell.
bool ReadGroups(int descriptor, std::vector<unsigned int>& groups)
{
    static_assert(sizeof(gid_t) == sizeof(unsigned int));
    // The answer to a buffer that is too small is ERANGE and, but for emulators, the size that it takes.
    for (std::size_t count = FirstGroups; count <= MostGroups; count *= 2)
    {
        std::vector<unsigned int> found(count);
        auto length = static_cast<socklen_t>(count * sizeof(gid_t));
        if (getsockopt(descriptor, SOL_SOCKET, SO_PEERGROUPS, found.data(), &length) == 0)
        {
            found.resize(length / sizeof(gid_t));
            groups.insert(groups.end(), found.begin(), found.end());
            return true;
        }
        if (errno != ERANGE)
        {
            return false;
        }
    }
    return false;
}

}  // namespace

PeerIdentity ReadPeerIdentity(int descriptor)
{
    PeerIdentity identity;
    ucred credentials{};
    socklen_t length = sizeof(credentials);
    if (getsockopt(descriptor, SOL_SOCKET, SO_PEERCRED, &credentials, &length) != 0)
    {
        return identity;
    }
    if (!Nobody("/proc/sys/kernel/overflowuid")(credentials.uid))
    {
        identity.user = credentials.uid;
    }
    std::vector<unsigned int>& groups = identity.groups;
    groups.push_back(credentials.gid);
    identity.areGroupsComplete = ReadGroups(descriptor, groups);
    std::sort(groups.begin(), groups.end());
    groups.erase(std::unique(groups.begin(), groups.end()), groups.end());
    std::erase_if(groups, Nobody("/proc/sys/kernel/overflowgid"));
    groups.shrink_to_fit();

    identity.process = credentials.pid;
    if (credentials.pid > 0)
    {
        identity.program = ReadLine("/proc/" + std::to_string(credentials.pid) + "/comm");
    }
    return identity;
}

}  // namespace korlo::osa
