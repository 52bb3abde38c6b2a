#pragma once
// A settings server that the test plays line by line.

#include <memory>
#include <string>
#include <utility>

#include "client/KorloSettingsTcpConnection.h"
#include "korlo/osa/ServiceDirectory.h"
#include "korlo/osa/TcpListener.h"
#include "korlo/osa/TcpSocketStream.h"

namespace korlo::settings
{

/// Listens on a free port, or where the test says, and every client of this process finds it as long as it lives.
///
/// Thread safety: none of its own; the owner guards it.
class ScriptedServer
{
public:
    /// The server's end of one connection. It ends with this object.
    class Peer
    {
    public:
        explicit Peer(std::unique_ptr<osa::TcpSocket> pSocket)
            : _pSocket(std::move(pSocket)),
              _stream(_pSocket.get(), WaitMs)
        {
        }

        /// The next lines, each with its line break; fewer when the client has gone or nothing came for long.
        std::string Read(int lines)
        {
            std::string text;
            for (std::string line; lines > 0 && std::getline(_stream, line); --lines)
            {
                text += line + '\n';
            }
            return text;
        }

        void Send(const std::string& text) { _stream.GetOstream() << text << std::flush; }

        /// True when the client has closed the connection without a further byte.
        bool MeetsTheEnd() { return _stream.peek() == std::char_traits<char>::eof(); }

        void Close() { _pSocket->Close(); }

    private:
        static constexpr unsigned int WaitMs = 30000;

        const std::unique_ptr<osa::TcpSocket> _pSocket;
        osa::TcpSocketStream _stream;
    };

    /// @param address as TcpListener takes it.
    explicit ScriptedServer(const std::string& address = "127.0.0.1") : _listener(address, 0)
    {
        osa::ServiceDirectory::Register(client::KorloSettingsTcpConnection::ServerHost, address, _listener.GetPort());
    }

    ScriptedServer(const ScriptedServer&) = delete;
    ScriptedServer& operator=(const ScriptedServer&) = delete;

    ~ScriptedServer() { osa::ServiceDirectory::Unregister(client::KorloSettingsTcpConnection::ServerHost); }

    /// Waits for the next client.
    std::unique_ptr<Peer> Accept() { return std::make_unique<Peer>(_listener.Accept()); }

    unsigned short GetPort() const { return _listener.GetPort(); }

    /// Refuses all further clients.
    void Close() { _listener.Close(); }

private:
    osa::TcpListener _listener;
};

}  // namespace korlo::settings
