#pragma once
// The client that knows what became of its changes.

#include <memory>
#include <optional>
#include <string>

#include "client/KorloSettingsClientImplBlocking.h"
#include "client/ServerLookup.h"
#include "common/Refusal.h"
#include "korlo/osa/Mutex.h"
#include "korlo/osa/TcpSocket.h"
#include "korlo/osa/TcpSocketStream.h"

namespace korlo::settings::client
{

/// How long the confirming client waits. Production defaults; tests shorten them.
struct ConfirmingLimits
{
    unsigned int connectMs = 5000;  // for the server to accept
    unsigned int answerMs = 15000;  // for each part of an answer; a change may have to wait for a slow disk
    unsigned int quitMs = 5000;     // for the server to end the connection
};

/// One connection to the server, which is never replaced by another one: what a new one said would tell nothing of a
/// change that the lost one took along. A request to change has no response, but the server carries out the requests of
/// a connection one after the other: so each change is followed by a read, whose response says that the change is
/// done. What is read is the group in which a server with access rules says that it refused the change, and so a
/// test-and-merge that changed nothing is followed by that read, too.
///
/// Whatever fails after the first byte of a request closes the connection, and every later call throws: a late response
/// is never taken for that to another request.
///
/// Thread safety: all methods, from any thread; one command at a time, from its request to its response.
class KorloSettingsClientImplConfirming : public KorloSettingsClientImplBlocking
{
public:
    /// Connects.
    /// @param address as settings::ServerAddress parses it; empty: where clients look by themselves.
    /// @param socketPath where clients look by themselves for the server's socket; see FindServer.
    /// @throws osa::Exception for an address that makes no sense, or when nobody accepts there in time.
    explicit KorloSettingsClientImplConfirming(const std::string& address, const ConfirmingLimits& limits = {},
                                               const std::string& socketPath = ServerSocketPath);

    /// Tells the server "quit" and waits until it has ended the connection, so that it has room for one client more.
    ~KorloSettingsClientImplConfirming() override;

    /// @throws RefusedException when the server has refused the change; the connection stays.
    ///         osa::Exception that names the command, the server and the reason, and says of a change that it may have
    ///         been made or not.
    void RunCommand(const char* name, RemoteCommand& command) const override KORLO_EXCLUDES(_mutex);

private:
    struct Connection
    {
        Connection(const ServerAddress& server, const ConfirmingLimits& limits);

        osa::TcpSocket socket;
        osa::TcpSocketStream stream;
    };

    std::optional<common::Refusal> Exchange(RemoteCommand& command) const KORLO_REQUIRES(_mutex);
    bool ReadResponse(RemoteCommand& command) const KORLO_REQUIRES(_mutex);
    void CheckStreams() const KORLO_REQUIRES(_mutex);

    const ConfirmingLimits _limits;
    mutable osa::Mutex _mutex;
    mutable std::unique_ptr<Connection> _pConnection KORLO_GUARDED_BY(_mutex);  // null after a failure
    std::string _server;                                                        // for messages
};

}  // namespace korlo::settings::client
