#pragma once
// What an application implements to hear of changes.

#include "korlo/core/IniFile.h"
#include "settings/GroupNameCollection.h"

namespace korlo::settings
{

/// A subscriber to changes of settings.
///
/// With a client of the modes MultiThreaded and LocalMultiThreaded, OnChange runs on the client's reader thread. It may
/// call what awaits no answer: SetValue, MergeSettings, OverwriteSettings, EraseGroups, RestoreToDefaults, Subscribe
/// and UnSubscribe. **GetSettings, GetValue, RefreshSettings and TestAndMerge on the same client never return from
/// it**: the thread that would read their answer is the one that waits for it. Nor may it wait for another thread that
/// is in such a call. Take what you need from `settings`, or leave it to another thread, as IniWatcher and
/// SettingsWatcher do; a second client may be called freely. What OnChange throws is logged, and the client
/// reconnects.
///
/// With a local client (Local, or any mode with KORLO_SETTINGS_LOCALFILE), OnChange runs on the thread that made the
/// change, before its call returns, and may call everything. What it throws comes out of that call, and the change
/// stays made.
///
/// With either, the subscribers after one that throws do not hear of that change, and no callback may destroy the
/// client that calls it. (A client that reports missed changes calls them all once more when it is back.) A callback
/// delays all later ones, and every answer to a multi-threaded client, whose reader thread has a stack of 32 KiB. One
/// that changes a group that it is subscribed to is called again: by a local client within that very change.
///
/// Thread safety: OnChange is called on the thread that is named above, never on two at a time by one client.
class IChangeCallback
{
public:
    virtual ~IChangeCallback() = default;

    /// @param changedGroups the groups that changed and that this subscriber asked for, by name or by pattern.
    /// @param settings holds at least the current content of those groups; one that was erased is not in it. Valid
    ///        during the call.
    virtual void OnChange(const GroupNameCollection& changedGroups, const core::IniFile& settings) = 0;
};

}  // namespace korlo::settings
