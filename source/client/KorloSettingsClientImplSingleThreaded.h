#pragma once
// The client that reads its responses on the caller's thread.

#include <memory>

#include "client/KorloSettingsClientImplBlocking.h"
#include "client/KorloSettingsConnection.h"
#include "korlo/osa/Mutex.h"

namespace korlo::settings::client
{

/// Sends each request and reads, in the same thread, until the response has come. It has no thread of its own and so
/// cannot hear of changes: subscribing is refused, and notifications that come all the same are skipped.
///
/// A request is sent again, up to five times in all, when the connection broke before its response came; so an
/// operation whose response was lost may be carried out twice, and TestAndMerge then reports the last attempt. Nothing
/// of a response that was cut short is kept.
///
/// Thread safety: all methods, from any thread; one command at a time, from its request to its response.
class KorloSettingsClientImplSingleThreaded : public KorloSettingsClientImplBlocking
{
public:
    /// @param pConnection taken. Connects with the first command.
    explicit KorloSettingsClientImplSingleThreaded(KorloSettingsConnection* pConnection);
    explicit KorloSettingsClientImplSingleThreaded(std::unique_ptr<KorloSettingsConnection> pConnection);

    /// @param name not used here.
    /// @throws osa::Exception "Failed to connect to korlo-settings-server" after five failed attempts.
    void RunCommand(const char* name, RemoteCommand& command) const override KORLO_EXCLUDES(_commandMutex);

private:
    bool Attempt(RemoteCommand& command) const KORLO_REQUIRES(_commandMutex);
    bool AwaitResponse(RemoteCommand& command) const KORLO_REQUIRES(_commandMutex);

    core::Logger* _pClientLogger;  // not owned
    mutable osa::Mutex _commandMutex;
    std::unique_ptr<KorloSettingsConnection> _pConnection KORLO_PT_GUARDED_BY(_commandMutex);
};

}  // namespace korlo::settings::client
