#include "SettingsServer.h"

#include <algorithm>
#include <csignal>
#include <exception>

#include <unistd.h>

namespace korlo::daemon
{
namespace
{

constexpr unsigned int StackBytes = 32 * 1024;

}  // namespace

SettingsServer::SettingsServer(const std::string& address, unsigned short port, const settings::server::ServerEnv& env,
                               const ServerLimits& limits)
    : _env(env),
      _limits(limits),
      _pLogger(core::Logger::GetLogger("SettingsServer")),
      _listener(address, port),
      _acceptThread("Accept", this, StackBytes, 0)
{
}

SettingsServer::~SettingsServer()
{
    SettingsServer::Stop();
}

void SettingsServer::Start()
{
    _acceptThread.Run();
}

void SettingsServer::Stop()
{
    _listener.Close();
    _acceptThread.Join();

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

bool SettingsServer::IsHealthy() const
{
    const PlainLock lock(_mutex);
    return _isHealthy;
}

void SettingsServer::Run()
{
    try
    {
        AcceptClients();
    }
    catch (const std::exception& exception)
    {
        _pLogger->Error("%s", exception.what());
        {
            const PlainLock lock(_mutex);
            _isHealthy = false;
        }
        ::kill(::getpid(), SIGTERM);
    }
}

void SettingsServer::AcceptClients()
{
    while (std::unique_ptr<osa::TcpSocket> pSocket = _listener.Accept())
    {
        const std::string peer = pSocket->GetPeerAddress();
        try
        {
            Serve(std::move(pSocket));
        }
        catch (const std::exception& exception)
        {
            _pLogger->Warning("Client '%s' is refused: %s", peer.c_str(), exception.what());
        }
    }
}

void SettingsServer::Serve(std::unique_ptr<osa::TcpSocket> pSocket)
{
    const PlainLock lock(_mutex);
    if (_running.size() >= _limits.maxClients)
    {
        _pLogger->Warning("Client '%s' is refused: %u clients are connected already", pSocket->GetPeerAddress().c_str(),
                          _limits.maxClients);
        return;
    }
    IConnectionOwner& owner = *this;
    _running.push_back(std::make_unique<ClientConnection>(std::move(pSocket), _env, _limits, _gathered, owner));
    try
    {
        _running.back()->Start();
    }
    catch (...)
    {
        _running.pop_back();
        throw;
    }
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
