#pragma once
// Unix-domain sockets for tests: connected pairs, raw sockets, and what another user may do.

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include "korlo/osa/Mutex.h"
#include "korlo/osa/TcpListener.h"
#include "korlo/osa/TcpSocket.h"
#include "support/Files.h"
#include "support/TemporaryFolder.h"

namespace korlo
{

/// Two connected sockets on a socket file in a folder of its own.
///
/// Thread safety: as its members'.
struct UnixPair
{
    UnixPair()
    {
        client.Connect(address.c_str(), 0, osa::Infinite);
        pServer = listener.Accept();
    }

    TemporaryFolder folder;
    const std::string path = folder.PathOf("socket");
    const std::string address = "unix:" + path;
    osa::TcpListener listener{address, 0};
    osa::TcpSocket client{1};
    std::unique_ptr<osa::TcpSocket> pServer;
};

/// A descriptor that is closed at the end of its scope.
///
/// Thread safety: none of its own; the owner guards it.
class OwnedDescriptor
{
public:
    explicit OwnedDescriptor(int descriptor) : _descriptor(descriptor)
    {
        if (descriptor < 0)
        {
            throw std::runtime_error(std::string("No descriptor: ") + std::strerror(errno));
        }
    }
    OwnedDescriptor(const OwnedDescriptor&) = delete;
    OwnedDescriptor& operator=(const OwnedDescriptor&) = delete;
    ~OwnedDescriptor() { Close(); }

    int Get() const { return _descriptor; }

    /// The caller closes it from now on.
    int Release()
    {
        const int descriptor = _descriptor;
        _descriptor = -1;
        return descriptor;
    }

    void Close()
    {
        if (_descriptor >= 0)
        {
            ::close(Release());
        }
    }

private:
    int _descriptor;
};

/// A socket without the classes that are tested.
///
/// Thread safety: none of its own; the owner guards it.
class RawUnixSocket : public OwnedDescriptor
{
public:
    explicit RawUnixSocket(int type = SOCK_STREAM) : OwnedDescriptor(::socket(AF_UNIX, type | SOCK_CLOEXEC, 0)) {}

    /// @param name a path or, beginning with a zero byte, a name without a file. 0, or the errno value.
    int Bind(const std::string& name) { return Call(::bind, name); }
    int Connect(const std::string& name) { return Call(::connect, name); }

    int Listen(int waiting = SOMAXCONN) const { return ::listen(Get(), waiting) == 0 ? 0 : errno; }

private:
    int Call(int (*pFunction)(int, const sockaddr*, socklen_t), const std::string& name) const
    {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::memcpy(address.sun_path, name.data(), std::min(name.size(), sizeof(address.sun_path)));
        const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
        return pFunction(Get(), reinterpret_cast<const sockaddr*>(&address), length) == 0 ? 0 : errno;
    }
};

/// Sends bytes, and descriptors with them. False when not all of the bytes could be sent.
inline bool SendWithDescriptors(int socket, std::string text, const std::vector<int>& descriptors)
{
    const std::size_t size = descriptors.size() * sizeof(int);
    std::vector<char> control(CMSG_SPACE(size));
    iovec bytes{text.data(), text.size()};
    msghdr message{};
    message.msg_iov = &bytes;
    message.msg_iovlen = 1;
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    cmsghdr* const pHeader = CMSG_FIRSTHDR(&message);
    pHeader->cmsg_level = SOL_SOCKET;
    pHeader->cmsg_type = SCM_RIGHTS;
    pHeader->cmsg_len = CMSG_LEN(size);
    std::memcpy(CMSG_DATA(pHeader), descriptors.data(), size);
    return ::sendmsg(socket, &message, MSG_NOSIGNAL) == static_cast<ssize_t>(text.size());
}

/// Why connecting to the socket at the path fails; empty when it does not.
inline std::string TryToConnect(const std::string& path, unsigned int timeoutMs = 1000)
{
    osa::TcpSocket client(1);
    return MessageOf([&] { client.Connect(("unix:" + path).c_str(), 0, timeoutMs); });
}

/// Leaves a socket's file behind, as a server does that is killed.
inline void LeaveSocket(const std::string& path)
{
    RawUnixSocket left;
    if (left.Bind(path) != 0 || left.Listen() != 0)
    {
        throw std::runtime_error("Failed to leave a socket at '" + path + "'");
    }
}

inline bool MayBecomeOtherUsers()
{
    return ::geteuid() == 0;
}

/// Runs `function` on a thread that is another user, if MayBecomeOtherUsers. The system keeps users by thread, and the
/// library's calls, which set them for all threads, are passed by.
inline void AsUser(unsigned int user, unsigned int group, const std::vector<unsigned int>& groups,
                   const std::function<void()>& function)
{
#ifdef SYS_setresuid32
    constexpr long setGroups = SYS_setgroups32;
    constexpr long setGroup = SYS_setresgid32;
    constexpr long setUser = SYS_setresuid32;
#else
    constexpr long setGroups = SYS_setgroups;
    constexpr long setGroup = SYS_setresgid;
    constexpr long setUser = SYS_setresuid;
#endif
    bool isOther = false;
    std::thread([&] {
        isOther = ::syscall(setGroups, groups.size(), groups.data()) == 0 &&
                  ::syscall(setGroup, group, group, group) == 0 && ::syscall(setUser, user, user, user) == 0;
        if (isOther)
        {
            function();
        }
    }).join();
    if (!isOther)
    {
        throw std::runtime_error("Failed to become user " + std::to_string(user));
    }
}

}  // namespace korlo
