#pragma once
// What clients may take of the server.

#include <cstddef>

namespace korlo::daemon
{

/// The limits of all clients together and of each.
///
/// Thread safety: none of its own; the owner guards it.
struct ServerLimits
{
    unsigned int maxClients = 1000;             ///< connections at once
    std::size_t maxBacklog = 1024 * 1024;       ///< bytes of notifications that may wait for one client's socket
    std::size_t maxMessage = 16 * 1024 * 1024;  ///< bytes of one request
    bool savesAtOnce = true;                    ///< what a request changes is on the disk when it ends
};

}  // namespace korlo::daemon
