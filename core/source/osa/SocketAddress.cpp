#include "osa/SocketAddress.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <limits>

#include <netinet/in.h>
#include <poll.h>

#include "korlo/osa/Exception.h"
#include "korlo/osa/Mutex.h"

namespace korlo::osa
{

AddressList Resolve(const char* host, unsigned short port, int flags, std::string& reason)
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
        pFirst = nullptr;
    }
    return AddressList(pFirst, [](addrinfo* pList) { pList == nullptr ? void() : freeaddrinfo(pList); });
}

std::string AddressText(const sockaddr* pAddress, socklen_t length)
{
    std::array<char, NI_MAXHOST> host{};
    if (getnameinfo(pAddress, length, host.data(), host.size(), nullptr, 0, NI_NUMERICHOST) != 0)
    {
        return "unknown";
    }
    return AddressText(host.data(), PortOf(pAddress));
}

std::string AddressText(const std::string& address, unsigned short port)
{
    const bool isIpv6 = address.find(':') != std::string::npos;
    return (isIpv6 ? "[" + address + "]" : address) + ":" + std::to_string(port);
}

unsigned short PortOf(const sockaddr* pAddress)
{
    if (pAddress->sa_family == AF_INET)
    {
        return ntohs(reinterpret_cast<const sockaddr_in*>(pAddress)->sin_port);
    }
    if (pAddress->sa_family == AF_INET6)
    {
        return ntohs(reinterpret_cast<const sockaddr_in6*>(pAddress)->sin6_port);
    }
    return 0;
}

Deadline::Deadline(unsigned int timeoutMs)
    : _unlimited(timeoutMs == Infinite),
      _end(std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs))
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
    const auto remaining = std::chrono::ceil<std::chrono::milliseconds>(_end - std::chrono::steady_clock::now());
    return static_cast<int>(std::clamp<long long>(remaining.count(), 0, std::numeric_limits<int>::max()));
}

}  // namespace korlo::osa
