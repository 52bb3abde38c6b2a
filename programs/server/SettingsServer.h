#pragma once
// Accepts the clients of the settings protocol.

#include <condition_variable>
#include <list>
#include <memory>
#include <string>

#include "ClientConnection.h"
#include "NotificationRound.h"
#include "PlainMutex.h"
#include "ServerLimits.h"
#include "korlo/core/Logger.h"
#include "korlo/osa/TcpListener.h"
#include "korlo/osa/Thread.h"
#include "settings/server/ServerEnv.h"

namespace korlo::daemon
{

/// Listens from its construction on, and serves every client that connects, up to a number, until Stop.
///
/// Thread safety: Start and Stop belong to the owner; the rest from any thread.
class SettingsServer : private osa::Runnable, private IConnectionOwner
{
public:
    /// @param address, port as TcpListener takes them.
    /// @param env its parts are borrowed.
    /// @throws osa::Exception when the address cannot be listened on.
    SettingsServer(const std::string& address, unsigned short port, const settings::server::ServerEnv& env,
                   const ServerLimits& limits);
    SettingsServer(const SettingsServer&) = delete;
    SettingsServer& operator=(const SettingsServer&) = delete;
    ~SettingsServer() override;

    /// Where it listens, as ADDRESS:PORT.
    const std::string& GetAddress() const { return _listener.GetAddress(); }
    unsigned short GetPort() const { return _listener.GetPort(); }

    /// Begins to accept clients.
    void Start();

    /// Accepts nobody any more, lets every connection end (see ClientConnection::Stop), and returns once the last
    /// thread has ended.
    void Stop() override;

    /// False when accepting has failed for good; SIGTERM was then sent to the process.
    bool IsHealthy() const;

private:
    using Connections = std::list<std::unique_ptr<ClientConnection>>;

    void Run() override;
    void OnConnectionEnded(ClientConnection& connection) override;

    void AcceptClients();
    void Serve(std::unique_ptr<osa::TcpSocket> pSocket);

    const settings::server::ServerEnv _env;
    const ServerLimits _limits;
    core::Logger* const _pLogger;  // not owned
    osa::TcpListener _listener;

    GatheredQueues _gathered;  // outlives the connections

    mutable PlainMutex _mutex;
    std::condition_variable_any _lastEnded;
    Connections _running KORLO_GUARDED_BY(_mutex);
    Connections _ended KORLO_GUARDED_BY(_mutex);  // at most one: each that ends takes the one before it away
    bool _isHealthy KORLO_GUARDED_BY(_mutex) = true;

    osa::Thread _acceptThread;  // last
};

}  // namespace korlo::daemon
