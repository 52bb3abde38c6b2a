#pragma once
// What the facade asks of every way to reach the settings.

#include "korlo/core/IniFile.h"
#include "korlo/core/Logger.h"
#include "korlo/osa/Mutex.h"
#include "settings/GroupNameCollection.h"
#include "settings/IChangeCallback.h"
#include "settings/IConnectionCallback.h"
#include "settings/common/CallbackDispatcher.h"

namespace korlo::settings::client
{

/// The base of the client implementations. The meaning of the operations is the store's; see SettingsManager.
///
/// Thread safety: all methods, from any thread.
class KorloSettingsClientImpl
{
public:
    /// @param isConnected what a connection callback hears at first.
    explicit KorloSettingsClientImpl(bool isConnected);
    KorloSettingsClientImpl(const KorloSettingsClientImpl&) = delete;
    KorloSettingsClientImpl& operator=(const KorloSettingsClientImpl&) = delete;
    virtual ~KorloSettingsClientImpl();

    /// Adds the selected groups (names and patterns) to `settings`.
    virtual void GetSettings(const GroupNameCollection& groups, core::IniFile& settings) const = 0;
    virtual void MergeSettings(const core::IniFile& changes, unsigned int flags) = 0;
    virtual bool TestAndMerge(const core::IniFile& expected, const core::IniFile& changes) = 0;

    /// @param pCallback borrowed; must stay alive until it is unsubscribed or this object is destroyed.
    virtual void Subscribe(IChangeCallback* pCallback, const GroupNameCollection& groups) = 0;
    virtual void OverwriteSettings(const GroupNameCollection& groups, const core::IniFile& settings) = 0;
    virtual void RestoreToDefaults(const GroupNameCollection& groups) = 0;

    /// Drops all groups of the callback; an unknown one is ignored.
    virtual void UnSubscribe(IChangeCallback* pCallback);

    /// See KorloSettingsClient::ReportMissedChanges. Does nothing here: who has no connection to lose, or no
    /// subscribers, misses nothing.
    virtual void ReportMissedChanges(bool isWanted);

    /// See KorloSettingsClient::SetConnectionCallback.
    void SetConnectionCallback(IConnectionCallback* pCallback) KORLO_EXCLUDES(_callbackMutex);

protected:
    /// Keeps the state of the connection for a callback that is set later.
    void NoteConnection(bool isConnected) const KORLO_EXCLUDES(_callbackMutex);

    /// The same, and calls the callback if the state is another one now. With none of the client's locks held.
    void ReportConnection(bool isConnected) KORLO_EXCLUDES(_callbackMutex);

    /// Adds what an answer held to the caller's document.
    static void AddReceived(core::IniFile& received, core::IniFile& settings);

    core::Logger* _pLogger;                  // not owned
    common::CallbackDispatcher _dispatcher;  // the application's subscribers

private:
    mutable osa::Mutex _callbackMutex;  // held while the callback runs, which may take every lock of the client
    IConnectionCallback* _pConnectionCallback KORLO_GUARDED_BY(_callbackMutex) = nullptr;  // not owned
    mutable bool _isConnected KORLO_GUARDED_BY(_callbackMutex);
};

}  // namespace korlo::settings::client
