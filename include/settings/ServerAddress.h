#pragma once
// Where a settings server listens, as text.

#include <string>

namespace korlo::settings
{

/// The address of a settings server: `HOST:PORT`, `[IPV6]:PORT`, or `unix:PATH` for a Unix-domain socket.
///
///     const ServerAddress address = ServerAddress::Parse("[::1]:4711");
///     osa::ServiceDirectory::Register("korlo-settings-server", address.host, address.port);
///
/// Thread safety: none of its own; the owner guards it.
struct ServerAddress
{
    /// @throws osa::Exception that says what is wrong with the text and what it should be: a host is missing, an IPv6
    ///         address has no brackets, the port is no number from 1 to 65535, or the path is missing.
    static ServerAddress Parse(const std::string& text);

    std::string host;         ///< a name or an address, without brackets; of a Unix-domain socket the whole text
    unsigned short port = 0;  ///< 0 for a Unix-domain socket
};

}  // namespace korlo::settings
