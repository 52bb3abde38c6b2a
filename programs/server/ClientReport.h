#pragma once
// What is known of a client, for people to read.

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

namespace korlo::daemon
{

/// How a client came.
///
/// Thread safety: none of its own; the owner guards it.
struct ClientArrival
{
    std::uint64_t number = 0;  ///< counted from 1 by the server, never twice
    std::string door;          ///< the address where it connected
    std::string user;          ///< as UserOf has it
};

/// A client at one moment.
///
/// Thread safety: none of its own; the owner guards it.
struct ClientReport
{
    ClientArrival arrival;
    std::chrono::system_clock::time_point since;

    std::string address;  ///< of a TCP peer; empty on a Unix-domain socket, where the rest says who it is
    std::optional<uid_t> userId;
    int process = 0;
    std::string program;  ///< any bytes

    std::uint64_t requests = 0;  ///< that are over
    std::uint64_t receivedBytes = 0;
    std::uint64_t sentBytes = 0;   ///< that its socket has taken
    std::size_t waitingBytes = 0;  ///< that its socket has refused
    std::uint64_t refusedChanges = 0;
    std::size_t subscriptions = 0;        ///< names and patterns
    std::vector<std::string> subscribed;  ///< the first of them
};

}  // namespace korlo::daemon
