#pragma once
// The connection to the settings server's process.

#include <memory>

#include "client/KorloSettingsConnection.h"
#include "korlo/osa/TcpSocket.h"
#include "korlo/osa/TcpSocketStream.h"

namespace korlo::settings::client
{

/// Reaches the settings server over TCP. Nothing is connected until EnsureConnection.
///
/// Thread safety: as KorloSettingsConnection.
class KorloSettingsTcpConnection : public KorloSettingsConnection
{
public:
    /// The one host name under which the server is looked for; see osa::TcpSocket::Connect for how.
    static constexpr const char* ServerHost = "korlo-settings-server";

    KorloSettingsTcpConnection() = default;
    ~KorloSettingsTcpConnection() override;

    /// Returns at once while the connection is ready; else connects anew, pausing 1000 ms before each attempt but the
    /// first.
    /// @throws osa::Exception "Failed to connect to korlo-settings-server" after `retries` attempts.
    void EnsureConnection(int retries) override;
    void CloseConnection() override;

private:
    void TryToConnect();

    std::unique_ptr<osa::TcpSocket> _pSocket;        // null when closed
    std::unique_ptr<osa::TcpSocketStream> _pStream;  // null when closed; uses the socket
};

}  // namespace korlo::settings::client
