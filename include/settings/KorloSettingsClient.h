#pragma once
// The one class by which an application reaches the settings.

#include <memory>
#include <string>

#include "korlo/core/IniFile.h"
#include "settings/GroupNameCollection.h"
#include "settings/IChangeCallback.h"
#include "settings/IConnectionCallback.h"
#include "settings/SettingLocator.h"

namespace korlo::settings
{

namespace client
{
class KorloSettingsClientImpl;
}  // namespace client

/// A client of the settings. It chooses an implementation from the operation mode and the environment, owns it, and
/// forwards every operation to it.
///
///     KorloSettingsClient client(KorloSettingsClient::Local, defaults);
///     client.SetValue("[Network]mode", "dhcp");
///     std::string mode = client.GetValue("[Network]mode");
///
/// Where an operation takes group names, an entry that holds `*` is a pattern. Documents to be filled are added to,
/// never cleared.
///
/// Thread safety: all methods, from any thread, in the local mode. Callbacks then run on the thread that made the
/// change, before its call returns.
class KorloSettingsClient
{
public:
    /// How the client reaches the settings.
    enum OperationMode : int
    {
        MultiThreaded = 0,        ///< the settings server over TCP, with change notifications
        SingleThreaded = 1,       ///< the settings server over TCP, without
        Local = 2,                ///< a store of its own in this process
        LocalSingleThreaded = 3,  ///< as SingleThreaded, over a connection within this process
        LocalMultiThreaded = 4    ///< as MultiThreaded, over a connection within this process
    };

    /// If the environment variable KORLO_SETTINGS_LOCALFILE is set, the client is local whatever the mode, over the
    /// file that it names (if it is not empty). The client is ready when the constructor returns.
    /// @throws osa::Exception "Invalid or unsupported operation mode"; or that the file cannot be read, with its path
    ///         and the reason.
    explicit KorloSettingsClient(OperationMode mode);

    /// The same with the application's defaults, which only a local client uses; they are copied. Values of the file
    /// that KORLO_SETTINGS_LOCALFILE names override them key by key.
    KorloSettingsClient(OperationMode mode, const core::IniFile& defaults);

    /// A client for tools and scripts, which want to know what became of a change. It connects at once or throws, never
    /// connects again, and returns from a change when the server has carried it out. It waits 15 seconds at most for an
    /// answer, or for the next part of a long one. It refuses subscriptions as the single-threaded mode does. When it
    /// is destroyed it waits, 5 seconds at most, until the server has ended the connection.
    ///
    /// After any failure on the way to an answer the connection is closed, and every later call throws at once; the
    /// text of the failure says what failed, with which server and why, and of a change that it may have been made or
    /// not.
    ///
    ///     KorloSettingsClient client = KorloSettingsClient::Confirming("panel.local:4711");
    ///     client.SetValue("[Network]mode", "dhcp");  // it is so now, and on the server's disk
    ///
    /// @param address HOST:PORT, [IPV6]:PORT or unix:PATH; see ServerAddress. An address is used whatever the
    ///        environment says. Empty: if KORLO_SETTINGS_LOCALFILE is set, the client is a local one, whose changes are
    ///        carried out when they return; else the server is looked for where the other modes look.
    /// @throws osa::Exception for an address that makes no sense, naming it; when nobody accepts a connection there
    ///         within 5 seconds, naming it and the reason.
    static KorloSettingsClient Confirming(const std::string& address);

    KorloSettingsClient(const KorloSettingsClient&) = delete;
    KorloSettingsClient& operator=(const KorloSettingsClient&) = delete;

    /// Ends all subscriptions; callbacks are not deleted.
    ~KorloSettingsClient();

    /// Adds the selected groups to `settings`; a name that selects nothing adds nothing.
    void GetSettings(const GroupNameCollection& groups, core::IniFile& settings) const;
    void GetSettings(const std::string& group, core::IniFile& settings) const;

    /// Reads every group that `settings` holds again.
    void RefreshSettings(core::IniFile& settings) const;

    /// One value; the empty string when the group or the key is missing.
    std::string GetValue(const SettingLocator& locator) const;

    /// The same by a text such as "[Network]Address".
    /// @throws osa::Exception "Failed to parse '%s' as a SettingLocator".
    std::string GetValue(const std::string& locator) const;

    /// Sets one value, to last; the other keys of its group stay.
    void SetValue(const SettingLocator& locator, const std::string& value);
    void SetValue(const std::string& locator, const std::string& value);

    /// Merges `changes`: adds and replaces keys, removes none. Restricted groups are dropped silently.
    /// @param flags bit 0 (value 1): do not persist. Other bits mean nothing.
    void MergeSettings(const core::IniFile& changes);
    void MergeSettings(const core::IniFile& changes, unsigned int flags);

    /// Merges `changes`, to last, if the settings hold every value of `expected` at that moment; else changes nothing
    /// and returns false. Nobody else's change comes between the test and the merge.
    bool TestAndMerge(const core::IniFile& expected, const core::IniFile& changes);

    /// Replaces the selected groups by those of `settings`, to last; a selected group that is not in it is erased.
    void OverwriteSettings(const GroupNameCollection& groups, const core::IniFile& settings);
    void OverwriteSettings(const std::string& group, const core::IniFile& settings);

    /// Replaces the groups of the same names.
    void OverwriteSettings(const core::IniFile& settings);

    /// Erases the selected groups, to last.
    void EraseGroups(const GroupNameCollection& groups);
    void EraseGroups(const std::string& group);

    /// Returns the selected groups to their defaults.
    void RestoreToDefaults(const GroupNameCollection& groups);
    void RestoreToDefaults(const std::string& group);

    /// Asks for a call at each change of the groups, in addition to what the callback has asked for before.
    /// @param pCallback borrowed; must stay alive until it is unsubscribed or the client is destroyed. With a local
    ///        client only the latter counts; see UnSubscribe.
    void Subscribe(IChangeCallback* pCallback, const GroupNameCollection& groups);
    void Subscribe(IChangeCallback* pCallback, const std::string& group);

    /// Drops all groups of the callback at once; an unknown one is ignored. When it returns, no call to the callback is
    /// under way, unless it was the callback that called. A local client goes on calling the callback until the client
    /// is destroyed.
    void UnSubscribe(IChangeCallback* pCallback);

    /// Tells `pCallback` whether the client has a connection: now, on the calling thread, and then, with a
    /// multi-threaded client, at each change of that, on its reader thread: true when callers may send and all
    /// subscriptions have been made again, false when the connection is lost. The end of the client itself is not
    /// reported. When it returns, no call to an earlier callback is under way, unless it was the callback that called.
    ///
    /// Local modes, LocalMultiThreaded and LocalSingleThreaded among them, are always connected. A single-threaded or
    /// confirming client has no thread that could notice a change: its callback is called now and never again, by a
    /// single-threaded one with what its last call found (false before the first), by a confirming one with false after
    /// a failure.
    ///
    /// @param pCallback takes the place of the one before. Borrowed; must stay alive until another one, or null, is set
    ///        or the client is destroyed. What it throws from the call made here passes out, and it is then not set.
    void SetConnectionCallback(IConnectionCallback* pCallback);

private:
    explicit KorloSettingsClient(std::unique_ptr<client::KorloSettingsClientImpl> pImpl);

    std::unique_ptr<client::KorloSettingsClientImpl> _pImpl;
};

}  // namespace korlo::settings
