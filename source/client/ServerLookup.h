#pragma once
// Where a client that is given no address finds the settings server.

#include <string>

#include "settings/ServerAddress.h"

namespace korlo::settings::client
{

/// The one host name under which the server is looked for; see osa::TcpSocket::Connect for how.
inline constexpr const char* ServerHost = "korlo-settings-server";

/// The socket of a server on this machine.
inline constexpr const char* ServerSocketPath = "/run/korlo-settings/socket";

/// What osa::TcpSocket::Connect takes to reach the server, in this order: what the ServiceDirectory has for ServerHost;
/// the socket at `socketPath`, when one is there, whether or not it lets anybody in; ServerHost, with port 0, as the
/// system knows it. A socket in a folder that this process may not enter cannot be seen and counts as none.
///
/// Looks anew with each call. Thread safety: from any thread.
ServerAddress FindServer(const std::string& socketPath);

/// True for a Unix-domain socket, false for a host.
bool IsUnixSocket(const ServerAddress& server);

}  // namespace korlo::settings::client
