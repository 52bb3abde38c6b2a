#include "korlo/osa/TcpListener.h"

#include <array>
#include <cerrno>
#include <optional>

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include "korlo/core/Logger.h"
#include "korlo/osa/Exception.h"
#include "korlo/osa/Thread.h"
#include "osa/PeerIdentityReader.h"
#include "osa/SocketAddress.h"
#include "osa/SocketFile.h"

namespace korlo::osa
{
namespace
{

constexpr unsigned int ExhaustedPauseMs = 100;

[[noreturn]] void ThrowListenFailed(const std::string& address, const std::string& reason)
{
    throw Exception("Failed to listen on '%s': %s", address.c_str(), reason.c_str());
}

int MakeEvent()
{
    const int descriptor = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (descriptor < 0)
    {
        throw Exception("Failed to make an event for a listener: %s", SystemReason(errno).c_str());
    }
    return descriptor;
}

/// -1 when the descriptor is no socket.
int Option(int descriptor, int name)
{
    int value = -1;
    socklen_t length = sizeof(value);
    return getsockopt(descriptor, SOL_SOCKET, name, &value, &length) == 0 ? value : -1;
}

/// What keeps a descriptor from being listened on; empty when nothing does.
std::string Unfitness(int descriptor)
{
    if (fcntl(descriptor, F_GETFD) < 0)
    {
        return SystemReason(errno);
    }
    switch (Option(descriptor, SO_TYPE))
    {
    case -1:
        return "it is no socket";
    case SOCK_STREAM:
        break;
    case SOCK_DGRAM:
        return "it is a datagram socket, and clients need a stream socket";
    default:
        return "it is no stream socket";
    }
    const int domain = Option(descriptor, SO_DOMAIN);
    if (domain != AF_INET && domain != AF_INET6 && domain != AF_UNIX)
    {
        return "it is neither a TCP nor a Unix-domain socket";
    }
    return Option(descriptor, SO_ACCEPTCONN) == 1 ? "" : "it does not listen";
}

bool IsExhaustion(int error)
{
    return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM;
}

/// What accept reports of a connection that broke before it was accepted, and of calls that were interrupted.
bool IsPassing(int error)
{
    switch (error)
    {
    case EINTR:
    case EAGAIN:  // another thread or process was quicker, or the client has gone
    case ECONNABORTED:
    case EPROTO:
    case ENOPROTOOPT:
    case EPERM:
    case ENETDOWN:
    case ENETUNREACH:
    case EHOSTDOWN:
    case EHOSTUNREACH:
    case ENONET:
    case EOPNOTSUPP:
        return true;
    default:
        return false;
    }
}

}  // namespace

TcpListener::TcpListener(bool isPassed) : _isPassed(isPassed), _wakeDescriptor(MakeEvent())
{
}

// From here on the object is complete: what throws below is cleaned up by the destructor.

TcpListener::TcpListener(const std::string& address, unsigned short port, const SocketFileRights& rights)
    : TcpListener(false)
{
    if (const std::optional<std::string> path = UnixPathOf(address))
    {
        _descriptor = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        if (_descriptor < 0)
        {
            ThrowListenFailed(address, SystemReason(errno));
        }
        _pFile = SocketFile::Listen(_descriptor, *path, rights);
    }
    else
    {
        std::string reason;
        const SocketAddresses addresses =
            Resolve(address.empty() ? nullptr : address.c_str(), port, AI_PASSIVE, reason);
        if (addresses.empty() || !ListenOn(addresses.front(), reason))
        {
            ThrowListenFailed(AddressText(address, port), reason);
        }
    }
    ReadAddress();
}

TcpListener::TcpListener(int descriptor) : TcpListener(true)
{
    const std::string unfitness = Unfitness(descriptor);
    if (!unfitness.empty())
    {
        throw Exception("Failed to listen on descriptor %d: %s", descriptor, unfitness.c_str());
    }
    _descriptor = descriptor;
    // Another process may take the client that the wait has found: an accept that blocks would not hear of a Close
    // then.
    fcntl(descriptor, F_SETFL, fcntl(descriptor, F_GETFL) | O_NONBLOCK);
    fcntl(descriptor, F_SETFD, FD_CLOEXEC);
    ReadAddress();
}

TcpListener::~TcpListener()
{
    TcpListener::Close();
    if (_descriptor >= 0)
    {
        close(_descriptor);
    }
    close(_wakeDescriptor);
}

bool TcpListener::ListenOn(const SocketAddress& address, std::string& reason)
{
    const int on = 1;
    _descriptor = socket(address.storage.ss_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    const bool listening = _descriptor >= 0 &&
                           setsockopt(_descriptor, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on)) == 0 &&
                           bind(_descriptor, address.Get(), address.length) == 0 && listen(_descriptor, SOMAXCONN) == 0;
    reason = listening ? "" : SystemReason(errno);
    return listening;
}

void TcpListener::ReadAddress()
{
    SocketAddress own;
    getsockname(_descriptor, own.Get(), &own.length);
    _isUnix = own.IsUnix();
    _address = own.GetText();
    _port = own.GetPort();
}

unsigned short TcpListener::GetPort() const
{
    return _port;
}

const std::string& TcpListener::GetAddress() const
{
    return _address;
}

std::unique_ptr<TcpSocket> TcpListener::Accept()
{
    std::unique_ptr<TcpSocket> pSocket(new TcpSocket(1));
    while (AwaitConnection())
    {
        SocketAddress peer;
        const int descriptor = accept4(_descriptor, peer.Get(), &peer.length, SOCK_CLOEXEC);
        if (descriptor < 0)
        {
            HandleFailure(errno);
            continue;
        }
        _exhausted = false;
        pSocket->Adopt(descriptor);
        if (_isUnix)
        {
            pSocket->_pPeerIdentity = std::make_unique<const PeerIdentity>(ReadPeerIdentity(descriptor));
        }
        pSocket->Prepare(peer, _isUnix ? _address : peer.GetText());
        return pSocket;
    }
    return nullptr;
}

/// False once the listener is closed.
bool TcpListener::AwaitConnection() const
{
    std::array<pollfd, 2> waitFor{pollfd{_descriptor, POLLIN, 0}, pollfd{_wakeDescriptor, POLLIN, 0}};
    if (!_closed)
    {
        Deadline(Infinite).WaitForAny(waitFor.data(), waitFor.size());
    }
    return !_closed;
}

void TcpListener::HandleFailure(int error)
{
    if (_closed || IsPassing(error))
    {
        return;
    }
    if (!IsExhaustion(error))
    {
        throw Exception("Failed to accept a connection on '%s': %s", _address.c_str(), SystemReason(error).c_str());
    }
    if (!_exhausted.exchange(true))
    {
        core::Logger::GetLogger("TcpListener")
            ->Warning("Failed to accept a connection on '%s', trying again: %s", _address.c_str(),
                      SystemReason(error).c_str());
    }
    Thread::CurrentThread::Sleep(ExhaustedPauseMs);
}

void TcpListener::Close()
{
    if (_closed.exchange(true))
    {
        return;
    }
    eventfd_write(_wakeDescriptor, 1);  // which nobody takes back: every wait ends, those to come as well
    if (_isPassed || _descriptor < 0)
    {
        return;
    }
    _pFile.reset();                    // while the socket listens
    shutdown(_descriptor, SHUT_RDWR);  // not close: another thread may be in Accept
    if (_isUnix)
    {
        RefuseWaiting();
    }
}

/// Ends the connections that nobody accepted. Over TCP the system does so when the listening ends, here only with the
/// last descriptor.
void TcpListener::RefuseWaiting() const
{
    for (int waiting = 0; waiting >= 0;)
    {
        waiting = accept4(_descriptor, nullptr, nullptr, SOCK_CLOEXEC);
        if (waiting >= 0)
        {
            close(waiting);
        }
    }
}

}  // namespace korlo::osa
