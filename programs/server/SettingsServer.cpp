#include "SettingsServer.h"

#include <algorithm>
#include <csignal>
#include <exception>

#include <unistd.h>

#include "Peer.h"
#include "korlo/osa/Exception.h"

namespace korlo::daemon
{
namespace
{

constexpr unsigned int StackBytes = 32 * 1024;

}  // namespace

/// One listener and the thread that accepts at it.
///
/// Thread safety: Start and Stop belong to the owner.
class SettingsServer::Door : private osa::Runnable
{
public:
    Door(SettingsServer& server, std::unique_ptr<osa::TcpListener> pListener)
        : _server(server),
          _pListener(std::move(pListener)),
          _thread("Accept", this, StackBytes, 0)
    {
    }
    Door(const Door&) = delete;
    Door& operator=(const Door&) = delete;
    ~Door() override { Door::Stop(); }

    void Start() { _thread.Run(); }

    /// Returns when nobody is accepted any more.
    void Stop() override
    {
        _pListener->Close();
        _thread.Join();
    }

private:
    void Run() override
    {
        try
        {
            _server.AcceptClients(*_pListener);
        }
        catch (const std::exception& exception)
        {
            _server._pLogger->Error("%s", exception.what());
            _server._isHealthy = false;
            ::kill(::getpid(), SIGTERM);
        }
    }

    SettingsServer& _server;
    const std::unique_ptr<osa::TcpListener> _pListener;
    osa::Thread _thread;  // last
};

SettingsServer::SettingsServer(Listeners listeners, const settings::server::ServerEnv& env, AccessControl& access,
                               const ServerLimits& limits)
    : _env(env),
      _limits(limits),
      _pLogger(core::Logger::GetLogger("SettingsServer")),
      _access(access)
{
    for (std::unique_ptr<osa::TcpListener>& pListener : listeners)
    {
        _doors.emplace_back(*this, std::move(pListener));
    }
}

SettingsServer::~SettingsServer()
{
    SettingsServer::Stop();
}

void SettingsServer::Start()
{
    for (Door& door : _doors)
    {
        door.Start();
    }
}

void SettingsServer::Stop()
{
    for (Door& door : _doors)
    {
        door.Stop();
    }

    std::unique_ptr<ClientConnection> pEnded;  // destroyed when the lock is free: the last to end may still hold it
    const PlainLock lock(_mutex);
    for (const auto& [number, pConnection] : _running)
    {
        pConnection->Stop();
    }
    while (!_running.empty())
    {
        _lastEnded.wait(_mutex);
    }
    pEnded.swap(_pEnded);
}

SettingsServer::ClientCounts SettingsServer::GetClientCounts() const
{
    const PlainLock lock(_mutex);
    ClientCounts counts = _counts;
    counts.now = _running.size();
    return counts;
}

std::optional<ClientReport> SettingsServer::GetNextClient(std::uint64_t number) const
{
    const PlainLock lock(_mutex);
    const auto next = _running.upper_bound(number);
    return next == _running.end() ? std::nullopt : std::optional(next->second->GetReport());
}

void SettingsServer::AcceptClients(osa::TcpListener& listener)
{
    while (std::unique_ptr<osa::TcpSocket> pSocket = listener.Accept())
    {
        const std::string user = UserOf(*pSocket);
        const std::string peer = DescribePeer(*pSocket, user);
        try
        {
            Serve(std::move(pSocket), peer, {0, listener.GetAddress(), user});
        }
        catch (const std::exception& exception)
        {
            _pLogger->Warning("Client '%s' is refused: %s", peer.c_str(), exception.what());
            const PlainLock lock(_mutex);
            ++_counts.refused;
        }
    }
}

/// @throws std::exception when the client is refused.
void SettingsServer::Serve(std::unique_ptr<osa::TcpSocket> pSocket, const std::string& peer, ClientArrival arrival)
{
    const PlainLock lock(_mutex);
    if (_running.size() >= _limits.maxClients)
    {
        throw osa::Exception("%u clients are connected already", _limits.maxClients);
    }
    arrival.number = ++_lastNumber;
    IConnectionOwner& owner = *this;
    Connections started;
    started.emplace(arrival.number, std::make_unique<ClientConnection>(std::move(pSocket), peer, _env, _access, _limits,
                                                                       _gathered, owner, arrival));
    started.begin()->second->Start();
    _running.merge(started);  // its thread cannot end before: it would have to take the lock
    _counts.most = std::max(_counts.most, _running.size());
}

void SettingsServer::OnConnectionEnded(ClientConnection& connection)
{
    std::unique_ptr<ClientConnection> pEnded;  // destroyed, which waits for its thread, after the lock is released
    const PlainLock lock(_mutex);
    const auto place = _running.find(connection.GetNumber());
    pEnded.swap(_pEnded);
    _pEnded = std::move(place->second);
    _running.erase(place);
    _counts.dropped += connection.WasDropped() ? 1 : 0;
    if (_running.empty())
    {
        _lastEnded.notify_all();
    }
}

}  // namespace korlo::daemon
