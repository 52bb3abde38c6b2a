#pragma once
// A connection to a settings server within the client's own process.

#include "client/KorloSettingsConnection.h"
#include "korlo/osa/PipeStreamPair.h"
#include "korlo/osa/Thread.h"
#include "settings/server/ClientHandler.h"
#include "settings/server/SerializationManager.h"
#include "settings/server/SettingsManager.h"

namespace korlo::settings::client
{

/// Runs a ClientHandler over an empty store of its own, on a thread of its own, and joins the two ends by pipes. Once
/// the handler has ended, by "quit" or by an exception, the connection stays invalid.
///
/// Thread safety: as KorloSettingsConnection. The handler's thread meets the client only through the pipes.
class KorloSettingsLocalConnection : public KorloSettingsConnection, public osa::Runnable
{
public:
    /// Starts the handler's thread.
    KorloSettingsLocalConnection();

    /// Sends "quit" and waits for the handler's thread.
    ~KorloSettingsLocalConnection() override;

    /// Checks the pipes; there is nothing to retry.
    /// @throws osa::Exception "KorloSettingsLocalConnection: Connection is in invalid state" once the handler has
    /// ended.
    void EnsureConnection(int retries) override;

    /// Does nothing: the pipes live as long as the connection.
    void CloseConnection() override {}

    /// The handler's thread.
    void Run() override;

    /// Does nothing: the handler ends when it reads "quit".
    void Stop() override {}

private:
    server::SettingsManager _settingsManager;
    server::SerializationManager _serializationManager;
    server::ServerEnv _env{&_settingsManager, &_serializationManager};
    osa::PipeStreamPair _requests;   // the client writes, the handler reads
    osa::PipeStreamPair _responses;  // the handler writes, the client reads
    server::ClientHandler _handler;
    osa::Thread _thread;  // last: started when everything that it uses is there
};

}  // namespace korlo::settings::client
