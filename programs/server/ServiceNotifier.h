#pragma once
// Tells the service manager how far the server is.

#include <string>

namespace korlo::daemon
{

/// Sends states to the socket that the environment variable NOTIFY_SOCKET names, as a unit of Type=notify does. Without
/// the variable nothing is sent, and nothing that goes wrong is an error: the server serves without a manager.
///
/// Thread safety: all methods, from any thread; the environment is read by the constructor.
class ServiceNotifier
{
public:
    ServiceNotifier();

    /// @param state such as "READY=1".
    void Notify(const std::string& state) const;

private:
    std::string _socketPath;  // empty for none; begins with '@' when it is abstract
};

}  // namespace korlo::daemon
