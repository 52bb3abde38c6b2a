#pragma once
// Socket addresses as text and back, and waiting for a socket; shared by the socket classes.

#include <chrono>
#include <cstddef>
#include <netdb.h>
#include <optional>
#include <string>
#include <sys/socket.h>
#include <vector>

struct pollfd;

namespace korlo::osa
{

/// Where a socket is or goes: an IPv4 or IPv6 address and port, or the path of a Unix-domain socket.
///
/// Thread safety: none of its own; the owner guards it.
struct SocketAddress
{
    sockaddr_storage storage{};
    socklen_t length = sizeof(storage);

    sockaddr* Get() { return reinterpret_cast<sockaddr*>(&storage); }
    const sockaddr* Get() const { return reinterpret_cast<const sockaddr*>(&storage); }

    bool IsUnix() const { return storage.ss_family == AF_UNIX; }

    /// ADDRESS:PORT, with an IPv6 address in square brackets; unix:PATH; of a socket without a file unix:@NAME.
    std::string GetText() const;

    /// 0 when the address has no port.
    unsigned short GetPort() const;
};

SocketAddress AddressOf(const addrinfo& found);

using SocketAddresses = std::vector<SocketAddress>;

/// The TCP addresses of a host, or none with `reason` set. Thread-safe, may take as long as the name service does.
/// @param host a name or an address; null for the loopback addresses, or with AI_PASSIVE for all of this machine.
SocketAddresses Resolve(const char* host, unsigned short port, int flags, std::string& reason);

/// The path of unix:PATH, which may be empty or too long; nothing for any other address.
std::optional<std::string> UnixPathOf(const std::string& address);

/// The address of a socket's file, the only one, or none with `reason` set: the path is empty, too long, or no path.
SocketAddresses ResolvePath(const std::string& path, std::string& reason);

/// The same text as that of SocketAddress.
std::string AddressText(const std::string& address, unsigned short port);

/// The moment, on the monotonic clock, at which a time-out is up.
class Deadline
{
public:
    /// @param timeoutMs may be Infinite.
    explicit Deadline(unsigned int timeoutMs);

    bool IsUnlimited() const { return _unlimited; }

    /// False when the time-out was 0.
    bool AllowsWait() const { return _unlimited || _end != Clock::time_point(); }

    /// -1 when there is no limit.
    int RemainingMs() const;

    /// Waits until the socket is ready for `events` or has an error. False when the time is up; with a time-out of 0
    /// that is unless it is ready now.
    bool WaitFor(int descriptor, short events) const;

    /// The same for several descriptors, each with what it waits for and, afterwards, what it is ready for.
    bool WaitForAny(pollfd* pWaited, std::size_t count) const;

private:
    using Clock = std::chrono::steady_clock;

    const bool _unlimited;
    const Clock::time_point _end;  // only a time-out that needs it costs a look at the clock
};

}  // namespace korlo::osa
