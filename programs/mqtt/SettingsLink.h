#pragma once
// What the bridge hears of the settings.

#include <memory>
#include <string>

#include "BridgeConfiguration.h"
#include "WakeUp.h"
#include "korlo/osa/Mutex.h"
#include "korlo/osa/ThreadAnnotations.h"
#include "settings/KorloSettingsClient.h"

namespace korlo::settings::mqtt
{

/// A client of the settings server that gathers what has changed until somebody asks: names, not contents, so that it
/// never holds more than the names of all groups, however often they change.
///
/// Thread safety: all methods, from any thread.
class SettingsLink : private IChangeCallback, private IConnectionCallback
{
public:
    /// What has happened since the last time.
    struct News
    {
        GroupNameCollection changed;
        bool isConnected = false;
        bool hasReconnected = false;  // anything may have changed
    };

    /// @param address of the server; empty: where clients look by themselves.
    /// @param patterns whose changes are to be heard of.
    /// @param wakeUp borrowed; raised when there is news.
    SettingsLink(const std::string& address, const GroupNameCollection& patterns, const WakeUp& wakeUp);
    SettingsLink(const SettingsLink&) = delete;
    SettingsLink& operator=(const SettingsLink&) = delete;

    /// When nobody reads.
    ~SettingsLink() override;

    News TakeNews() KORLO_EXCLUDES(_mutex);

    /// Waits for the server. The connection is the one that hears of changes: what a group holds when it is read here
    /// is what it held after every change that was heard of, or later.
    /// @throws osa::Exception
    void Read(const GroupNameCollection& entries, core::IniFile& settings) const;

private:
    void OnChange(const GroupNameCollection& changedGroups, const core::IniFile& settings) override;
    void OnConnectionState(bool isConnected) override;

    const GroupNameCollection _patterns;
    const WakeUp& _wakeUp;

    osa::Mutex _mutex;
    News _news KORLO_GUARDED_BY(_mutex);

    bool _isSubscribed = false;  // the reader thread's
    std::unique_ptr<KorloSettingsClient> _pClient;
};

}  // namespace korlo::settings::mqtt
