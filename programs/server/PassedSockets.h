#pragma once
// The sockets that the service manager has opened for this process.

#include <optional>
#include <vector>

namespace korlo::daemon
{

/// Descriptors that were passed by LISTEN_PID, LISTEN_FDS and LISTEN_FDNAMES, from descriptor 3 on. Whoever opens them
/// as listeners checks what they are.
///
/// Thread safety: none of its own; the owner guards it.
struct PassedSockets
{
    /// Reads the three variables and takes them out of the environment, so that no program that this process starts
    /// takes them for its own. Makes every descriptor close-on-exec. Nothing is passed when LISTEN_PID names another
    /// process.
    /// Before any thread is started: it changes the environment.
    /// @throws osa::Exception that names the variable, its value and what is wrong, when the variables make no sense,
    ///         a descriptor that they promise is not open, or two are named "control".
    static PassedSockets Take();

    std::vector<int> settings;   ///< in the order in which they were passed
    std::optional<int> control;  ///< the one that is named "control"
};

}  // namespace korlo::daemon
