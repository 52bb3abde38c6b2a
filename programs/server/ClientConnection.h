#pragma once
// One client of the server.

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include "ClientReport.h"
#include "NotificationRound.h"
#include "OutgoingQueue.h"
#include "ServerLimits.h"
#include "SubscribedNames.h"
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
/// Thread safety: Start once, by the owner; Stop and GetReport from any thread; WasDropped for the owner, in
/// OnConnectionEnded and after.
class ClientConnection final : public osa::Runnable
{
public:
    /// @param peer names the client for people; see DescribePeer.
    /// @param access, gathered, owner borrowed, as are the parts of env.
    ClientConnection(std::unique_ptr<osa::TcpSocket> pSocket, const std::string& peer,
                     const settings::server::ServerEnv& env, AccessControl& access, const ServerLimits& limits,
                     GatheredQueues& gathered, IConnectionOwner& owner, const ClientArrival& arrival = {});
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

    /// Before OnConnectionEnded, no longer: takes no lock that anybody holds while he waits for something.
    ClientReport GetReport() const;

    std::uint64_t GetNumber() const { return _arrival.number; }

    /// True when the log tells of a reason for its end: neither the client nor the server just ended.
    bool WasDropped() const { return _wasDropped; }

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
    const ClientArrival _arrival;
    const std::chrono::system_clock::time_point _since = std::chrono::system_clock::now();
    const ClientOrigin _origin;
    std::atomic<bool> _isStopping = false;
    bool _wasDropped = false;

    std::atomic<std::uint64_t> _requests = 0;       // those that are over; the connection's thread writes
    std::atomic<std::uint64_t> _receivedBytes = 0;  // the same; up to the last wait
    SubscribedNames _subscribed;

    std::unique_ptr<osa::TcpSocket> _pSocket;      // null once the connection has ended
    const std::shared_ptr<OutgoingQueue> _pQueue;  // uses the socket until it is broken; others may hold it longer
    osa::Thread _thread;                           // last: it ends before what it uses goes
};

}  // namespace korlo::daemon
