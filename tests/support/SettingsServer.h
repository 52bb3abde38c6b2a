#pragma once
// A settings server within the test's own process.

#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "client/KorloSettingsTcpConnection.h"
#include "korlo/osa/ServiceDirectory.h"
#include "korlo/osa/TcpListener.h"
#include "korlo/osa/TcpSocketStream.h"
#include "settings/server/ClientHandler.h"
#include "settings/server/IClientAccess.h"
#include "settings/server/SerializationManager.h"
#include "settings/server/SettingsManager.h"
#include "support/RecordingPersister.h"

namespace korlo::settings
{

/// Serves a store, on a free port unless a test says otherwise, where every client of this process finds it as long as
/// it lives; one thread a connection.
///
/// Thread safety: all methods, from any thread.
class SettingsServer
{
public:
    /// A server whose store has these defaults and keeps its user layer in memory.
    /// @param pAccess borrowed, what every client may do; null: everything.
    /// @param address as TcpListener takes it.
    explicit SettingsServer(const core::IniFile& defaults = core::IniFile(), server::IClientAccess* pAccess = nullptr,
                            const std::string& address = "127.0.0.1")
        : _pAccess(pAccess),
          _listener(address, 0),
          _persister(PersisterOf(defaults)),
          _acceptor([this] { AcceptAll(); })
    {
        osa::ServiceDirectory::Register(client::KorloSettingsTcpConnection::ServerHost, address, _listener.GetPort());
    }

    SettingsServer(const SettingsServer&) = delete;
    SettingsServer& operator=(const SettingsServer&) = delete;

    ~SettingsServer()
    {
        osa::ServiceDirectory::Unregister(client::KorloSettingsTcpConnection::ServerHost);
        _listener.Close();
        _acceptor.join();
        DropClients();
    }

    server::SettingsManager& GetStore() { return _store; }

    unsigned short GetPort() const { return _listener.GetPort(); }

    /// Ends every connection, as a server that is killed does.
    void DropClients()
    {
        std::vector<Connection> dropped;
        {
            const std::lock_guard lock(_mutex);
            dropped.swap(_connections);
        }
        for (Connection& connection : dropped)
        {
            connection.pSocket->Close();
            connection.thread.join();
        }
    }

private:
    struct Connection
    {
        std::shared_ptr<osa::TcpSocket> pSocket;
        std::thread thread;
    };

    static server::RecordingPersister PersisterOf(const core::IniFile& defaults)
    {
        server::RecordingPersister persister;
        persister.defaults = {defaults};
        return persister;
    }

    void AcceptAll()
    {
        while (std::shared_ptr<osa::TcpSocket> pSocket = _listener.Accept())
        {
            const std::lock_guard lock(_mutex);
            _connections.push_back({pSocket, std::thread([this, pSocket] { Serve(*pSocket); })});
        }
    }

    void Serve(osa::TcpSocket& socket)
    {
        osa::TcpSocketStream stream(&socket, osa::Infinite);
        server::ClientHandler handler(&_env, &stream, &stream.GetOstream(), nullptr, _pAccess);
        handler.Run();
        socket.Close();
    }

    server::IClientAccess* const _pAccess;
    osa::TcpListener _listener;
    server::RecordingPersister _persister;
    server::SettingsManager _store{&_persister, nullptr, nullptr, false};
    server::SerializationManager _serialization;
    server::ServerEnv _env{&_store, &_serialization};
    std::mutex _mutex;
    std::vector<Connection> _connections;
    std::thread _acceptor;
};

}  // namespace korlo::settings
