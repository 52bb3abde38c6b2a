#pragma once
// One client of the server.

#include <atomic>
#include <memory>
#include <string>

#include "NotificationRound.h"
#include "OutgoingQueue.h"
#include "ServerLimits.h"
#include "access/AccessControl.h"
#include "journal/ClientOrigin.h"
#include "korlo/core/Logger.h"
#include "korlo/osa/TcpSocket.h"
#include "korlo/osa/Thread.h"
#include "settings/server/ServerEnv.h"

namespace korlo::daemon
{

class ClientConnection;

/// Hears of the end of a connection.
///
/// Thread safety: called on the connection's own thread.
class IConnectionOwner
{
public:
    virtual ~IConnectionOwner() = default;

    /// The connection serves no more and its thread is about to end; a client that quit hears of it after this.
    /// Stop is not called any more, but other connections may still be; whoever destroys this one waits for the thread.
    virtual void OnConnectionEnded(ClientConnection& connection) = 0;
};

/// Serves one client on a thread of its own, from the start to the client's end, Stop, or a failure, which is logged
/// with the client's address and costs nobody else anything. The socket is closed before the thread ends.
///
/// Thread safety: Start once, by the owner; Stop from any thread.
class ClientConnection final : public osa::Runnable
{
public:
    /// @param peer names the client for people; see DescribePeer.
    /// @param access, gathered, owner borrowed, as are the parts of env.
    ClientConnection(std::unique_ptr<osa::TcpSocket> pSocket, const std::string& peer,
                     const settings::server::ServerEnv& env, AccessControl& access, const ServerLimits& limits,
                     GatheredQueues& gathered, IConnectionOwner& owner);
    ClientConnection(const ClientConnection&) = delete;
    ClientConnection& operator=(const ClientConnection&) = delete;

    /// Waits for the thread, if it was started.
    ~ClientConnection() override = default;

    /// @throws osa::Exception when the system has no thread left; the connection is then of no use.
    void Start() { _thread.Run(); }

    /// Lets the connection end, and waits for nothing: the request in hand is finished and answered, and no other one
    /// is begun. A client that does not take its answers has two seconds for them.
    void Stop() override;

    void Run() override;

private:
    class Session;

    void Serve();

    settings::server::ServerEnv _env;
    const ServerLimits _limits;
    GatheredQueues& _gathered;
    IConnectionOwner& _owner;
    core::Logger* const _pLogger;  // not owned
    const std::string _peer;       // for people
    ClientAccess _access;
    const ClientOrigin _origin;
    std::atomic<bool> _isStopping = false;

    std::unique_ptr<osa::TcpSocket> _pSocket;      // null once the connection has ended
    const std::shared_ptr<OutgoingQueue> _pQueue;  // uses the socket until it is broken; others may hold it longer
    osa::Thread _thread;                           // last: it ends before what it uses goes
};

}  // namespace korlo::daemon
