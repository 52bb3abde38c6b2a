#pragma once
// The client that reads its responses on the caller's thread.

#include <memory>

#include "client/KorloSettingsClientImpl.h"
#include "client/KorloSettingsConnection.h"
#include "client/RemoteCommand.h"
#include "korlo/osa/Mutex.h"

namespace korlo::settings::client
{

/// Sends each request and reads, in the same thread, until the response has come. It has no thread of its own and so
/// cannot hear of changes: subscribing is refused, and notifications that come all the same are skipped.
///
/// A request is sent again, up to five times in all, when the connection broke before its response came; so an
/// operation whose response was lost may be carried out twice, and TestAndMerge then reports the last attempt.
///
/// Thread safety: all methods, from any thread; one command at a time, from its request to its response.
class KorloSettingsClientImplSingleThreaded : public KorloSettingsClientImpl
{
public:
    /// @param pConnection taken. Connects with the first command.
    explicit KorloSettingsClientImplSingleThreaded(KorloSettingsConnection* pConnection);
    ~KorloSettingsClientImplSingleThreaded() override;

    void GetSettings(const GroupNameCollection& groups, core::IniFile& settings) const override;
    void MergeSettings(const core::IniFile& changes, unsigned int flags) override;
    bool TestAndMerge(const core::IniFile& expected, const core::IniFile& changes) override;

    /// @throws osa::Exception "KorloSettingsClient::Subscribe not supported in single threaded mode", always.
    void Subscribe(IChangeCallback* pCallback, const GroupNameCollection& groups) override;
    void OverwriteSettings(const GroupNameCollection& groups, const core::IniFile& settings) override;
    void RestoreToDefaults(const GroupNameCollection& groups) override;

    /// Sends the command and reads its response, if it has one.
    /// @param name not used here; an implementation with a log of its requests writes it.
    /// @throws osa::Exception "Failed to connect to korlo-settings-server" after five failed attempts.
    void RunCommand(const char* name, RemoteCommand& command) const KORLO_EXCLUDES(_commandMutex);

private:
    bool Attempt(RemoteCommand& command) const KORLO_REQUIRES(_commandMutex);
    bool AwaitResponse(RemoteCommand& command) const KORLO_REQUIRES(_commandMutex);

    core::Logger* _pClientLogger;  // not owned
    mutable osa::Mutex _commandMutex;
    std::unique_ptr<KorloSettingsConnection> _pConnection KORLO_PT_GUARDED_BY(_commandMutex);
};

}  // namespace korlo::settings::client
