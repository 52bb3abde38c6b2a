#pragma once
// The connection to the settings server's process.

#include <memory>
#include <string>

#include "client/KorloSettingsConnection.h"
#include "client/ServerLookup.h"
#include "korlo/osa/TcpSocket.h"
#include "korlo/osa/TcpSocketStream.h"

namespace korlo::settings::client
{

/// Reaches the settings server over TCP or over its Unix-domain socket. Nothing is connected until EnsureConnection.
///
/// Thread safety: as KorloSettingsConnection.
class KorloSettingsTcpConnection : public KorloSettingsConnection
{
public:
    static constexpr const char* ServerHost = client::ServerHost;

    /// @param socketPath where FindServer, which is asked before each attempt, looks for the server's socket.
    explicit KorloSettingsTcpConnection(std::string socketPath = ServerSocketPath);
    ~KorloSettingsTcpConnection() override;

    /// Returns at once while the connection is ready; else connects anew, pausing 1000 ms before each attempt but the
    /// first. The log names the reason why a socket's file cannot be connected to, with its path, once until that is
    /// another one or a connection comes about.
    /// @throws osa::Exception "Failed to connect to korlo-settings-server" after `retries` attempts.
    void EnsureConnection(int retries) override;
    void CloseConnection() override;

private:
    void TryToConnect();
    void LogReason(const ServerAddress& server, const char* reason);

    const std::string _socketPath;
    std::string _warnedReason;                       // the latest that was logged as a warning
    std::unique_ptr<osa::TcpSocket> _pSocket;        // null when closed
    std::unique_ptr<osa::TcpSocketStream> _pStream;  // null when closed; uses the socket
};

}  // namespace korlo::settings::client
