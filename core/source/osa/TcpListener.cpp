#include "korlo/osa/TcpListener.h"

#include <cerrno>

#include <unistd.h>

#include "korlo/core/Logger.h"
#include "korlo/osa/Exception.h"
#include "korlo/osa/Thread.h"
#include "osa/SocketAddress.h"

namespace korlo::osa
{
namespace
{

constexpr unsigned int ExhaustedPauseMs = 100;

/// 0, or the errno value of the failure.
int StartListening(int descriptor, const addrinfo& address)
{
    const int on = 1;
    const bool listening = setsockopt(descriptor, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on)) == 0 &&
                           bind(descriptor, address.ai_addr, address.ai_addrlen) == 0 &&
                           listen(descriptor, SOMAXCONN) == 0;
    return listening ? 0 : errno;
}

[[noreturn]] void ThrowListenFailed(const std::string& address, unsigned short port, const std::string& reason)
{
    throw Exception("Failed to listen on '%s': %s", AddressText(address, port).c_str(), reason.c_str());
}

int Listen(const std::string& address, unsigned short port)
{
    std::string reason;
    const AddressList addresses = Resolve(address.empty() ? nullptr : address.c_str(), port, AI_PASSIVE, reason);
    if (addresses == nullptr)
    {
        ThrowListenFailed(address, port, reason);
    }
    const int descriptor = socket(addresses->ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int error = descriptor < 0 ? errno : StartListening(descriptor, *addresses);
    if (error != 0)
    {
        if (descriptor >= 0)
        {
            close(descriptor);
        }
        ThrowListenFailed(address, port, SystemReason(error));
    }
    return descriptor;
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

TcpListener::TcpListener(const std::string& address, unsigned short port) : TcpListener(Listen(address, port))
{
    sockaddr_storage own{};
    socklen_t length = sizeof(own);
    const auto pOwn = reinterpret_cast<sockaddr*>(&own);
    getsockname(_descriptor, pOwn, &length);
    _address = AddressText(pOwn, length);
    _port = PortOf(pOwn);
}

TcpListener::TcpListener(int descriptor) : _descriptor(descriptor)
{
}

TcpListener::~TcpListener()
{
    close(_descriptor);
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
    while (!_closed)
    {
        sockaddr_storage peer{};
        socklen_t length = sizeof(peer);
        const auto pPeer = reinterpret_cast<sockaddr*>(&peer);
        const int descriptor = accept4(_descriptor, pPeer, &length, SOCK_CLOEXEC);
        if (descriptor >= 0)
        {
            _exhausted = false;
            pSocket->Adopt(descriptor);
            pSocket->Prepare(AddressText(pPeer, length));
            return pSocket;
        }
        HandleFailure(errno);
    }
    return nullptr;
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
    _closed = true;
    shutdown(_descriptor, SHUT_RDWR);  // not close: another thread may be in Accept
}

}  // namespace korlo::osa
