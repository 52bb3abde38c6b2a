#pragma once
// Who makes changes over a connection, as the journal notes it.

#include <cstdint>
#include <optional>
#include <string>

#include <sys/types.h>

#include "settings/server/IChangeObserver.h"

namespace korlo::daemon
{

/// One connection. With a user it is known by user and program, whichever connection a change comes by; without one it
/// is nobody but this connection.
///
/// Thread safety: none of its own; it does not change while somebody uses it.
struct ClientOrigin : settings::server::ChangeOrigin
{
    std::string peer;             ///< of TCP the client's address, else that of the door; empty: the server itself
    std::optional<uid_t> user;    ///< none where the kernel names none
    int process = 0;              ///< 0: unknown
    std::string program;          ///< chosen by the client
    std::int64_t connection = 0;  ///< with `peer`, no other connection's
};

}  // namespace korlo::daemon
