#pragma once
// Tells the service manager how far the server is.

#include <string>

namespace korlo::daemon
{

/// Sends a state to the socket that the environment variable NOTIFY_SOCKET names (begins with '@' when it is abstract),
/// as a unit of Type=notify does. Without the variable nothing is sent, and nothing that goes wrong is an error: the
/// server serves without a manager. Any thread, while nobody changes the environment.
/// @param state such as "READY=1".
void NotifyServiceManager(const std::string& state);

}  // namespace korlo::daemon
