#pragma once
// Socket addresses as text and back, and waiting for a socket; shared by the socket classes.

#include <chrono>
#include <cstddef>
#include <memory>
#include <netdb.h>
#include <string>
#include <sys/socket.h>

struct pollfd;

namespace korlo::osa
{

using AddressList = std::unique_ptr<addrinfo, void (*)(addrinfo*)>;

/// The TCP addresses of a host, or null with `reason` set. Thread-safe, may take as long as the name service does.
/// @param host a name or an address; null for the loopback addresses, or with AI_PASSIVE for all of this machine.
AddressList Resolve(const char* host, unsigned short port, int flags, std::string& reason);

/// ADDRESS:PORT, with an IPv6 address in square brackets.
std::string AddressText(const sockaddr* pAddress, socklen_t length);
std::string AddressText(const std::string& address, unsigned short port);

/// 0 when the address has no port.
unsigned short PortOf(const sockaddr* pAddress);

/// The moment, on the monotonic clock, at which a time-out is up.
class Deadline
{
public:
    /// @param timeoutMs may be Infinite.
    explicit Deadline(unsigned int timeoutMs);

    bool IsUnlimited() const { return _unlimited; }

    /// Waits until the socket is ready for `events` or has an error. False when the time is up; with a time-out of 0
    /// that is unless it is ready now.
    bool WaitFor(int descriptor, short events) const;

    /// The same for several descriptors, each with what it waits for and, afterwards, what it is ready for.
    bool WaitForAny(pollfd* pWaited, std::size_t count) const;

private:
    int RemainingMs() const;

    const bool _unlimited;
    const std::chrono::steady_clock::time_point _end;
};

}  // namespace korlo::osa
