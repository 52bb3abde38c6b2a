#pragma once
// The HOST:PORT of --server.

#include <string>

namespace korlo::settings::cli
{

/// A host and a port. In text an IPv6 address stands in brackets: `[::1]:4711`.
///
/// Thread safety: none of its own; the owner guards it.
struct ServerAddress
{
    /// @throws Failure with StatusWrongCommandLine for anything but a host that is not empty and a port from 1 to
    ///         65535.
    static ServerAddress Parse(const std::string& text);

    std::string host;  ///< without brackets
    unsigned short port;
};

}  // namespace korlo::settings::cli
