#include "korlo/osa/TcpSocket.h"

#include <algorithm>
#include <array>
#include <cerrno>

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/uio.h>
#include <unistd.h>

#include "korlo/osa/Exception.h"
#include "korlo/osa/ServiceDirectory.h"
#include "osa/SocketAddress.h"

namespace korlo::osa
{
namespace
{

constexpr unsigned short DefaultPort = 4711;

/// Where Connect goes.
struct Target
{
    AddressList addresses;
    unsigned short port;
    std::string reason;  // why there are no addresses
};

unsigned short ServicePort(const char* service)
{
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* pFirst = nullptr;
    if (getaddrinfo(nullptr, service, &hints, &pFirst) != 0)
    {
        return DefaultPort;
    }
    const unsigned short port = PortOf(pFirst->ai_addr);
    freeaddrinfo(pFirst);
    return port;
}

Target ResolveTarget(const char* host, unsigned short port)
{
    std::string reason;
    AddressList addresses = Resolve(host, port, 0, reason);
    return Target{std::move(addresses), port, reason};
}

Target FindTarget(const char* host, unsigned short port)
{
    if (port != 0)
    {
        return ResolveTarget(host, port);
    }
    std::string address;
    if (ServiceDirectory::Find(host, address, port))
    {
        return ResolveTarget(address.c_str(), port);
    }
    Target target = ResolveTarget(host, ServicePort(host));
    return target.addresses != nullptr ? std::move(target) : ResolveTarget("127.0.0.1", target.port);
}

/// Waits for a connect that is under way. 0, or the errno value of its failure.
int FinishConnect(int descriptor, const Deadline& deadline)
{
    if (!deadline.WaitFor(descriptor, POLLOUT))
    {
        return ETIMEDOUT;
    }
    int error = 0;
    socklen_t length = sizeof(error);
    getsockopt(descriptor, SOL_SOCKET, SO_ERROR, &error, &length);
    return error;
}

/// A connect to a free port of this machine may pick that very port for its own end, and be connected to itself.
bool IsConnectedToItself(int descriptor, const std::string& peerAddress)
{
    sockaddr_storage own{};
    socklen_t length = sizeof(own);
    return getsockname(descriptor, reinterpret_cast<sockaddr*>(&own), &length) == 0 &&
           AddressText(reinterpret_cast<const sockaddr*>(&own), length) == peerAddress;
}

/// 0, or the errno value of the failure.
int RunConnect(int descriptor, const addrinfo& address, const Deadline& deadline)
{
    int error = connect(descriptor, address.ai_addr, address.ai_addrlen) == 0 ? 0 : errno;
    if (error == EINPROGRESS || error == EINTR)
    {
        error = FinishConnect(descriptor, deadline);
    }
    if (error == 0 && IsConnectedToItself(descriptor, AddressText(address.ai_addr, address.ai_addrlen)))
    {
        error = ECONNREFUSED;
    }
    return error;
}

/// Repeats `transfer(flags)`, a receive or a send, until it moves bytes, fails or the time is up. The socket itself
/// blocks, so that an unlimited transfer is a single call.
template <typename Function>
TcpSocket::IoResult Transfer(int descriptor, short events, const Deadline& deadline, Function transfer)
{
    const int flags = MSG_NOSIGNAL | (deadline.IsUnlimited() ? 0 : MSG_DONTWAIT);
    for (;;)
    {
        const ssize_t moved = transfer(flags);
        if (moved >= 0)
        {
            return {moved == 0 ? TcpSocket::EndOfStream : TcpSocket::Done, static_cast<std::size_t>(moved), 0};
        }
        const int error = errno;
        if (error != EINTR && error != EAGAIN && error != EWOULDBLOCK)
        {
            return {TcpSocket::Failed, 0, error};
        }
        if (error != EINTR && !deadline.WaitFor(descriptor, events))
        {
            return {TcpSocket::TimedOut, 0, 0};
        }
    }
}

using Pieces = std::array<iovec, 2>;

/// A piece to be sent. The system's structure is made for receiving too and cannot take a pointer to const.
iovec Piece(const char* bytes, std::size_t size)
{
    return {const_cast<char*>(bytes), size};
}

TcpSocket::IoResult SendSome(int descriptor, const Deadline& deadline, Pieces& pieces)
{
    msghdr message{};
    message.msg_iov = pieces.data();
    message.msg_iovlen = pieces.size();
    return Transfer(descriptor, POLLOUT, deadline, [&](int flags) { return sendmsg(descriptor, &message, flags); });
}

void Skip(Pieces& pieces, std::size_t sent)
{
    for (iovec& piece : pieces)
    {
        const std::size_t part = std::min(sent, piece.iov_len);
        piece.iov_base = static_cast<char*>(piece.iov_base) + part;
        piece.iov_len -= part;
        sent -= part;
    }
}

}  // namespace

TcpSocket::TcpSocket(unsigned short noDelay) : _noDelay(noDelay != 0)
{
}

TcpSocket::~TcpSocket()
{
    Drop();
    if (_wakeDescriptor >= 0)
    {
        close(_wakeDescriptor);
    }
}

void TcpSocket::Connect(const char* host, unsigned short port, unsigned int timeoutMs)
{
    NotNull(host, "Host");
    if (_descriptor >= 0)
    {
        throw Exception("Failed to connect to '%s': the socket is connected to '%s'", host, _peerAddress.c_str());
    }
    const Target target = FindTarget(host, port);
    std::string reason = target.reason;
    const Deadline deadline(timeoutMs);
    for (const addrinfo* pAddress = target.addresses.get(); pAddress != nullptr; pAddress = pAddress->ai_next)
    {
        const int error = ConnectTo(*pAddress, deadline);
        if (error == 0)
        {
            return;
        }
        reason = SystemReason(error);
    }
    throw Exception("Failed to connect to '%s' port %d: %s", host, target.port, reason.c_str());
}

int TcpSocket::ConnectTo(const addrinfo& address, const Deadline& deadline)
{
    const int descriptor = socket(address.ai_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (descriptor < 0)
    {
        return errno;
    }
    int error = Adopt(descriptor) ? RunConnect(descriptor, address, deadline) : ECANCELED;
    if (error != 0)
    {
        Drop();
        return error;
    }
    fcntl(descriptor, F_SETFL, fcntl(descriptor, F_GETFL) & ~O_NONBLOCK);
    Prepare(AddressText(address.ai_addr, address.ai_addrlen));
    return 0;
}

TcpSocket::IoResult TcpSocket::ReadSome(char* bytes, std::size_t size, unsigned int timeoutMs)
{
    return Transfer(_descriptor, POLLIN, Deadline(timeoutMs),
                    [&](int flags) { return recv(_descriptor, bytes, size, flags); });
}

TcpSocket::IoResult TcpSocket::WriteSome(const char* bytes, std::size_t size, unsigned int timeoutMs)
{
    Pieces pieces{Piece(bytes, size), Piece(nullptr, 0)};
    return size == 0 ? IoResult{Done, 0, 0} : SendSome(_descriptor, WriteDeadline(timeoutMs), pieces);
}

Deadline TcpSocket::WriteDeadline(unsigned int timeoutMs) const
{
    return Deadline(std::min<unsigned int>(timeoutMs, _longestWriteMs));  // Infinite is the greatest there is
}

TcpSocket::IoResult TcpSocket::WriteAll(const char* bytes, std::size_t size, unsigned int timeoutMs)
{
    return WriteAll(bytes, size, nullptr, 0, timeoutMs);
}

TcpSocket::IoResult TcpSocket::WriteAll(const char* head, std::size_t headSize, const char* tail, std::size_t tailSize,
                                        unsigned int timeoutMs)
{
    const Deadline deadline = WriteDeadline(timeoutMs);
    Pieces pieces{Piece(head, headSize), Piece(tail, tailSize)};
    std::size_t written = 0;
    while (written < headSize + tailSize)
    {
        const IoResult part = SendSome(_descriptor, deadline, pieces);
        if (part.status != Done)
        {
            return {part.status, written, part.error};
        }
        written += part.bytes;
        Skip(pieces, part.bytes);
    }
    return {Done, written, 0};
}

unsigned int TcpSocket::Wait(bool forReading, bool forWriting, unsigned int timeoutMs)
{
    const auto events = static_cast<short>((forReading ? POLLIN : 0) | (forWriting ? POLLOUT : 0));
    std::array<pollfd, 2> waitFor{pollfd{_descriptor, events, 0}, pollfd{WakeDescriptor(), POLLIN, 0}};
    if (!Deadline(timeoutMs).WaitForAny(waitFor.data(), waitFor.size()))
    {
        return 0;
    }
    unsigned int ready = 0;
    if ((waitFor[1].revents & POLLIN) != 0)
    {
        eventfd_t count = 0;
        eventfd_read(waitFor[1].fd, &count);  // which sets it back to zero
        ready |= Woken;
    }
    const int found = waitFor[0].revents;
    const bool isLost = (found & (POLLERR | POLLHUP | POLLNVAL)) != 0;
    ready |= isLost || (found & POLLIN) != 0 ? Readable : 0u;
    ready |= isLost || (found & POLLOUT) != 0 ? Writable : 0u;
    return ready;
}

void TcpSocket::Wake()
{
    eventfd_write(WakeDescriptor(), 1);
}

int TcpSocket::WakeDescriptor()
{
    const std::lock_guard lock(_mutex);
    if (_wakeDescriptor < 0)
    {
        _wakeDescriptor = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
        if (_wakeDescriptor < 0)
        {
            throw Exception("Failed to make an event for the connection to '%s': %s", _peerAddress.c_str(),
                            SystemReason(errno).c_str());
        }
    }
    return _wakeDescriptor;
}

void TcpSocket::Close()
{
    const std::lock_guard lock(_mutex);
    _closed = true;
    if (_descriptor >= 0)
    {
        shutdown(_descriptor, SHUT_RDWR);  // not close: another thread may be inside a call on the descriptor
    }
}

const std::string& TcpSocket::GetPeerAddress() const
{
    return _peerAddress;
}

bool TcpSocket::Adopt(int descriptor)
{
    const std::lock_guard lock(_mutex);
    _descriptor = descriptor;
    return !_closed;
}

void TcpSocket::Drop()
{
    const std::lock_guard lock(_mutex);
    if (_descriptor >= 0)
    {
        close(_descriptor);  // not repeated when interrupted: the descriptor is free all the same
        _descriptor = -1;
    }
}

void TcpSocket::Prepare(const std::string& peerAddress)
{
    _peerAddress = peerAddress;
    const int on = 1;
    if (_noDelay)
    {
        setsockopt(_descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
    }
    // A peer that vanished without a word is found out after two minutes.
    const int idleSeconds = 60;
    const int intervalSeconds = 10;
    const int probes = 6;
    setsockopt(_descriptor, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof(on));
    setsockopt(_descriptor, IPPROTO_TCP, TCP_KEEPIDLE, &idleSeconds, sizeof(idleSeconds));
    setsockopt(_descriptor, IPPROTO_TCP, TCP_KEEPINTVL, &intervalSeconds, sizeof(intervalSeconds));
    setsockopt(_descriptor, IPPROTO_TCP, TCP_KEEPCNT, &probes, sizeof(probes));
}

}  // namespace korlo::osa
