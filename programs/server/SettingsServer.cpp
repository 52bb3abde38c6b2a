#include "SettingsServer.h"

#include <algorithm>
#include <csignal>
#include <exception>

#include <unistd.h>

#include "Peer.h"

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

    Connections ended;  // destroyed after the lock is released: the last to end may still hold it
    const PlainLock lock(_mutex);
    for (const std::unique_ptr<ClientConnection>& pConnection : _running)
    {
        pConnection->Stop();
    }
    while (!_running.empty())
    {
        _lastEnded.wait(_mutex);
    }
    ended.swap(_ended);
}

void SettingsServer::AcceptClients(osa::TcpListener& listener)
{
    while (std::unique_ptr<osa::TcpSocket> pSocket = listener.Accept())
    {
        const std::string peer = DescribePeer(*pSocket);
        try
        {
            Serve(std::move(pSocket), peer);
        }
        catch (const std::exception& exception)
        {
            _pLogger->Warning("Client '%s' is refused: %s", peer.c_str(), exception.what());
        }
    }
}

void SettingsServer::Serve(std::unique_ptr<osa::TcpSocket> pSocket, const std::string& peer)
{
    const PlainLock lock(_mutex);
    if (_running.size() >= _limits.maxClients)
    {
        _pLogger->Warning("Client '%s' is refused: %u clients are connected already", peer.c_str(), _limits.maxClients);
        return;
    }
    IConnectionOwner& owner = *this;
    Connections started;
    started.push_back(
        std::make_unique<ClientConnection>(std::move(pSocket), peer, _env, _access, _limits, _gathered, owner));
    started.back()->Start();
    _running.splice(_running.end(), started);  // its thread cannot end before: it would have to take the lock
}

void SettingsServer::OnConnectionEnded(ClientConnection& connection)
{
    Connections ended;  // destroyed, which waits for its thread, after the lock is released
    const PlainLock lock(_mutex);
    const auto place = std::find_if(_running.begin(), _running.end(),
                                    [&](const auto& pConnection) { return pConnection.get() == &connection; });
    ended.swap(_ended);
    _ended.splice(_ended.end(), _running, place);
    if (_running.empty())
    {
        _lastEnded.notify_all();
    }
}

}  // namespace korlo::daemon
