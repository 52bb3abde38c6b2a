#pragma once
// Accepts the clients of the settings protocol.

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "ClientConnection.h"
#include "ClientReport.h"
#include "NotificationRound.h"
#include "PlainMutex.h"
#include "ServerLimits.h"
#include "access/AccessControl.h"
#include "korlo/core/Logger.h"
#include "korlo/osa/TcpListener.h"
#include "korlo/osa/Thread.h"
#include "settings/server/ServerEnv.h"

namespace korlo::daemon
{

/// Serves every client that connects at one of its doors, up to a number in all, until Stop. Each door has a thread
/// that accepts.
///
/// Thread safety: Start and Stop belong to the owner; the rest from any thread.
class SettingsServer : private IConnectionOwner
{
public:
    using Listeners = std::vector<std::unique_ptr<osa::TcpListener>>;

    struct ClientCounts
    {
        std::size_t now = 0;        ///< that are connected
        std::size_t most = 0;       ///< that were at once
        std::uint64_t refused = 0;  ///< too many, or the system had no room for one
        std::uint64_t dropped = 0;  ///< see ClientConnection::WasDropped
    };

    /// @param listeners the doors, at least one.
    /// @param env its parts are borrowed.
    /// @param access borrowed; what clients may do.
    SettingsServer(Listeners listeners, const settings::server::ServerEnv& env, AccessControl& access,
                   const ServerLimits& limits);
    SettingsServer(const SettingsServer&) = delete;
    SettingsServer& operator=(const SettingsServer&) = delete;
    ~SettingsServer() override;

    /// Begins to accept clients.
    void Start();

    /// Accepts nobody any more, lets every connection end (see ClientConnection::Stop), and returns once the last
    /// thread has ended.
    void Stop();

    /// False when accepting has failed for good; SIGTERM was then sent to the process.
    bool IsHealthy() const { return _isHealthy; }

    ClientCounts GetClientCounts() const;

    /// The first of the connected clients whose numbers are above this one; nothing when there is none. So who asks for
    /// all of them, one after the other, holds up nobody, however many there are.
    std::optional<ClientReport> GetNextClient(std::uint64_t number) const;

private:
    using Connections = std::map<std::uint64_t, std::unique_ptr<ClientConnection>>;  // by their numbers

    class Door;

    void OnConnectionEnded(ClientConnection& connection) override;
    void AcceptClients(osa::TcpListener& listener);
    void Serve(std::unique_ptr<osa::TcpSocket> pSocket, const std::string& peer, ClientArrival arrival);

    const settings::server::ServerEnv _env;
    const ServerLimits _limits;
    core::Logger* const _pLogger;  // not owned
    AccessControl& _access;

    GatheredQueues _gathered;  // outlives the connections

    std::atomic<bool> _isHealthy = true;

    mutable PlainMutex _mutex;  // held for no wait
    std::condition_variable_any _lastEnded;
    Connections _running KORLO_GUARDED_BY(_mutex);
    std::unique_ptr<ClientConnection> _pEnded KORLO_GUARDED_BY(_mutex);  // each that ends takes the one before it away
    ClientCounts _counts KORLO_GUARDED_BY(_mutex);                       // without `now`
    std::uint64_t _lastNumber KORLO_GUARDED_BY(_mutex) = 0;

    std::list<Door> _doors;  // last: their threads use the rest
};

}  // namespace korlo::daemon
