#pragma once
// What an application implements to hear whether its client has a connection.

namespace korlo::settings
{

/// Hears of the state of a client's connection; see KorloSettingsClient::SetConnectionCallback.
///
/// Thread safety: OnConnectionState comes on the client's reader thread, and once on the thread that sets the callback,
/// never two at a time from one client.
class IConnectionCallback
{
public:
    virtual ~IConnectionCallback() = default;

    /// @param isConnected true: requests reach the server from now on, and all subscriptions have been made again.
    ///        False: the connection is lost, and calls wait for the next one or fail.
    ///
    /// As in IChangeCallback::OnChange, the callback may make changes (when there is a connection), subscribe and
    /// unsubscribe, but not ask a multi-threaded client for a response. What it throws on the reader thread is logged.
    virtual void OnConnectionState(bool isConnected) = 0;
};

}  // namespace korlo::settings
