#include "osa/SocketAddress.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <limits>
#include <memory>
#include <string_view>

#include <netinet/in.h>
#include <poll.h>
#include <sys/un.h>

#include "korlo/osa/Exception.h"
#include "korlo/osa/Mutex.h"

namespace korlo::osa
{

namespace
{

constexpr std::string_view UnixPrefix = "unix:";
constexpr std::size_t PathOffset = offsetof(sockaddr_un, sun_path);
constexpr std::size_t MaximumPathBytes = sizeof(sockaddr_un::sun_path);  // all of them: the system needs no zero byte

/// The path is not ended by a zero byte when it takes all the room that there is; the length of the address then
/// counts.
std::string UnixText(const SocketAddress& address)
{
    const char* const pBytes = reinterpret_cast<const char*>(&address.storage);
    std::string name(pBytes + PathOffset, std::max<std::size_t>(address.length, PathOffset) - PathOffset);
    if (name.empty() || name.front() != '\0')
    {
        name.resize(std::min(name.find('\0'), name.size()));
    }
    std::replace(name.begin(), name.end(), '\0', '@');
    return std::string(UnixPrefix) + name;
}

}  // namespace

SocketAddress AddressOf(const addrinfo& found)
{
    SocketAddress address;
    std::memcpy(&address.storage, found.ai_addr, found.ai_addrlen);
    address.length = found.ai_addrlen;
    return address;
}

SocketAddresses Resolve(const char* host, unsigned short port, int flags, std::string& reason)
{
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = flags | AI_NUMERICSERV;
    addrinfo* pFirst = nullptr;
    const int error = getaddrinfo(host, std::to_string(port).c_str(), &hints, &pFirst);
    if (error != 0)
    {
        reason = error == EAI_SYSTEM ? SystemReason(errno) : gai_strerror(error);
        return {};
    }
    const std::unique_ptr<addrinfo, void (*)(addrinfo*)> pList(pFirst, freeaddrinfo);
    SocketAddresses addresses;
    for (const addrinfo* pFound = pFirst; pFound != nullptr; pFound = pFound->ai_next)
    {
        addresses.push_back(AddressOf(*pFound));
    }
    return addresses;
}

std::optional<std::string> UnixPathOf(const std::string& address)
{
    return address.starts_with(UnixPrefix) ? std::optional(address.substr(UnixPrefix.size())) : std::nullopt;
}

SocketAddresses ResolvePath(const std::string& path, std::string& reason)
{
    if (path.empty())
    {
        reason = "the path is empty";
    }
    else if (path.size() > MaximumPathBytes)
    {
        reason = "the path has " + std::to_string(path.size()) + " bytes, of which the system allows " +
                 std::to_string(MaximumPathBytes);
    }
    else if (path.front() == '@' || path.find('\0') != std::string::npos)
    {
        reason = "a socket needs a file: the path holds no zero byte and begins with no '@'";
    }
    if (!reason.empty())
    {
        return {};
    }
    SocketAddress address;
    address.storage.ss_family = AF_UNIX;
    std::memcpy(reinterpret_cast<char*>(&address.storage) + PathOffset, path.data(), path.size());
    address.length = static_cast<socklen_t>(PathOffset + path.size());
    return {address};
}

std::string SocketAddress::GetText() const
{
    if (IsUnix())
    {
        return UnixText(*this);
    }
    std::array<char, NI_MAXHOST> host{};
    if (getnameinfo(Get(), length, host.data(), host.size(), nullptr, 0, NI_NUMERICHOST) != 0)
    {
        return "unknown";
    }
    return AddressText(host.data(), GetPort());
}

unsigned short SocketAddress::GetPort() const
{
    if (storage.ss_family == AF_INET)
    {
        return ntohs(reinterpret_cast<const sockaddr_in*>(&storage)->sin_port);
    }
    if (storage.ss_family == AF_INET6)
    {
        return ntohs(reinterpret_cast<const sockaddr_in6*>(&storage)->sin6_port);
    }
    return 0;
}

std::string AddressText(const std::string& address, unsigned short port)
{
    const bool isIpv6 = address.find(':') != std::string::npos;
    return (isIpv6 ? "[" + address + "]" : address) + ":" + std::to_string(port);
}

Deadline::Deadline(unsigned int timeoutMs)
    : _unlimited(timeoutMs == Infinite),
      _end(_unlimited || timeoutMs == 0 ? Clock::time_point() : Clock::now() + std::chrono::milliseconds(timeoutMs))
{
}

bool Deadline::WaitFor(int descriptor, short events) const
{
    pollfd waited{descriptor, events, 0};
    return WaitForAny(&waited, 1);
}

bool Deadline::WaitForAny(pollfd* pWaited, std::size_t count) const
{
    for (;;)
    {
        const int remainingMs = RemainingMs();
        const int ready = poll(pWaited, static_cast<nfds_t>(count), remainingMs);
        if (ready > 0 || (ready < 0 && errno != EINTR))
        {
            return true;  // an error too is something that the next call on the socket tells of
        }
        if (ready == 0 && RemainingMs() == 0)
        {
            return false;
        }
    }
}

int Deadline::RemainingMs() const
{
    if (_unlimited)
    {
        return -1;
    }
    const auto remaining = std::chrono::ceil<std::chrono::milliseconds>(_end - Clock::now());
    return static_cast<int>(std::clamp<long long>(remaining.count(), 0, std::numeric_limits<int>::max()));
}

}  // namespace korlo::osa
