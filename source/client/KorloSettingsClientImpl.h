#pragma once
// What the facade asks of every way to reach the settings.

#include "korlo/core/IniFile.h"
#include "korlo/core/Logger.h"
#include "settings/GroupNameCollection.h"
#include "settings/IChangeCallback.h"
#include "settings/common/CallbackDispatcher.h"

namespace korlo::settings
{

class KorloSettingsClient;

namespace client
{

/// The base of the client implementations. The meaning of the operations is the store's; see SettingsManager.
///
/// Thread safety: all methods, from any thread.
class KorloSettingsClientImpl
{
public:
    KorloSettingsClientImpl();
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

protected:
    /// Adds what an answer held to the caller's document.
    static void AddReceived(core::IniFile& received, core::IniFile& settings);

    friend class korlo::settings::KorloSettingsClient;  // removes subscribers from the dispatcher

    core::Logger* _pLogger;                  // not owned
    common::CallbackDispatcher _dispatcher;  // the application's subscribers
};

}  // namespace client
}  // namespace korlo::settings
