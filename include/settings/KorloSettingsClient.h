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
/// never cleared; a read whose answer was lost adds nothing.
///
/// **When a change is made.** In the local mode, when the call returns. In the other modes MergeSettings, SetValue,
/// OverwriteSettings, EraseGroups and RestoreToDefaults return once the request is on its way: the server carries it
/// out afterwards, and if it fails there (a full disk, say), nobody is told. To be sure, read with the same client: the
/// server answers requests in their order. A single-threaded client may have reconnected for that read, and the change
/// may be lost: compare what it read. TestAndMerge waits for the answer in every mode, and a client made by
/// KorloSettingsClient::Confirming waits for every change.
///
/// **Failures.** Every operation that needs the server may throw an osa::Exception:
///
/// - MultiThreaded: without a connection it waits for up to 10 s, then throws an osa::LockException. "%s lost
///   connection to korlo-settings-server": the request could not be written. "%s failed to communicate with
///   korlo-settings-server": the connection was lost before the answer came, and the change of a TestAndMerge may have
///   been made. After a connection was lost while nobody waited for an answer, the first call that awaits one fails
///   with this text too, at once and with nothing sent: a read may always be repeated.
/// - SingleThreaded: "Failed to connect to korlo-settings-server", after some 20 s (five attempts, in each of which it
///   tries to connect five times, a second apart). A request whose connection breaks before its answer is sent again:
///   a change may be made twice, and TestAndMerge reports the last attempt.
/// - LocalMultiThreaded and LocalSingleThreaded: as their counterparts, over a connection that does not break.
/// - A client made by Confirming: what failed, with which server and why, as said there. For a change that the server's
///   access rules do not allow it is a RefusedException.
/// - All modes but Local: "Group name '%s' cannot be sent: it is a full stop or holds a line break", before anything is
///   sent.
///
/// Only a client made by Confirming limits how long it waits for a server that is connected and does not answer.
///
/// Thread safety: all methods, from any thread, in every mode. A single-threaded or confirming client serves one call
/// at a time, a multi-threaded one one call that awaits an answer at a time; the others wait, without a limit, before
/// their own limits begin. Destroy the client when no call is under way, and never in a callback. What a callback may
/// do, and on which thread it runs: see IChangeCallback.
class KorloSettingsClient
{
public:
    /// How the client reaches the settings.
    enum OperationMode : int
    {
        MultiThreaded = 0,        ///< the settings server, with change notifications and a thread for them
        SingleThreaded = 1,       ///< the settings server, without
        Local = 2,                ///< a store of its own in this process, with notifications, filled by the defaults
        LocalSingleThreaded = 3,  ///< as SingleThreaded, over an empty store in this process, without defaults
        LocalMultiThreaded = 4    ///< as MultiThreaded, over an empty store in this process, without defaults
    };

    /// If the environment variable KORLO_SETTINGS_LOCALFILE is set, the client is local whatever the mode, over the
    /// file that it names (if it is not empty). The file is read once and never written. The client may be used when
    /// the constructor returns, which does not wait for a connection: MultiThreaded connects on a thread of its own,
    /// SingleThreaded with the first operation.
    /// @throws osa::Exception "Invalid or unsupported operation mode"; that the file cannot be read, with its path
    ///         and the reason; or that no thread can be started.
    explicit KorloSettingsClient(OperationMode mode);

    /// The same with the application's defaults, which only the local mode uses; they are copied. Values of the file
    /// that KORLO_SETTINGS_LOCALFILE names override them key by key. Restricted groups are dropped from both.
    /// @throws osa::Exception as above.
    KorloSettingsClient(OperationMode mode, const core::IniFile& defaults);

    /// A client for tools and scripts, which want to know what became of a change. It connects at once or throws, never
    /// reconnects, and returns from a change when the server has carried it out. It waits 15 seconds at most for an
    /// answer, or for the next part of a long one. It refuses subscriptions as the single-threaded mode does. When it
    /// is destroyed it waits, 5 seconds at most, until the server has ended the connection.
    ///
    /// After any failure on the way to an answer the connection is closed, and every later call throws at once; the
    /// text of the failure says what failed, with which server and why, and of a change that it may have been made or
    /// not.
    ///
    /// A change that the server's access rules do not allow throws a RefusedException with the groups, and the client
    /// goes on working.
    ///
    ///     KorloSettingsClient client = KorloSettingsClient::Confirming("panel.local:4711");
    ///     client.SetValue("[Network]mode", "dhcp");  // the server has it now
    ///
    /// @param address HOST:PORT, [IPV6]:PORT or unix:PATH; see ServerAddress. An address is used whatever the
    ///        environment says. Empty: if KORLO_SETTINGS_LOCALFILE is set, the client is a local one, whose changes are
    ///        carried out when they return; else the server is looked for where the other modes look.
    /// @throws osa::Exception for an address that makes no sense, naming it; when nobody accepts a connection there
    ///         within 5 seconds, naming it and the reason.
    static KorloSettingsClient Confirming(const std::string& address);

    KorloSettingsClient(const KorloSettingsClient&) = delete;
    KorloSettingsClient& operator=(const KorloSettingsClient&) = delete;

    /// Ends all subscriptions and waits for a callback that is under way; callbacks are not deleted. A multi-threaded
    /// client takes a second or two to end while the server is away or hangs.
    ~KorloSettingsClient();

    /// Adds the selected groups to `settings`, restricted ones included; a name that selects nothing adds nothing.
    /// @throws osa::Exception see Failures, as does every read.
    void GetSettings(const GroupNameCollection& groups, core::IniFile& settings) const;
    void GetSettings(const std::string& group, core::IniFile& settings) const;

    /// Reads every group that `settings` holds again.
    void RefreshSettings(core::IniFile& settings) const;

    /// One value; the empty string when the group or the key is missing.
    std::string GetValue(const SettingLocator& locator) const;

    /// The same by a text such as "[Network]Address".
    /// @throws osa::Exception "Failed to parse '%s' as a SettingLocator"; else see Failures.
    std::string GetValue(const std::string& locator) const;

    /// Sets one value and persists it; the other keys of its group stay.
    /// @throws osa::Exception "Failed to parse '%s' as a SettingLocator" for a text; else as MergeSettings.
    void SetValue(const SettingLocator& locator, const std::string& value);
    void SetValue(const std::string& locator, const std::string& value);

    /// Merges `changes`: adds and replaces keys, removes none. Restricted groups are dropped silently.
    /// @param flags bit 0 (value 1): do not persist. Other bits mean nothing.
    /// @throws osa::Exception see Failures, as does every change; in the local mode whatever a callback throws, and the
    ///         change stays made.
    void MergeSettings(const core::IniFile& changes, unsigned int flags);

    /// The same with flags 0: persists the changes.
    void MergeSettings(const core::IniFile& changes);

    /// Merges and persists `changes` if the settings hold every value of `expected`; else changes nothing and returns
    /// false. Nobody else's change comes between the test and the merge.
    /// @throws osa::Exception as MergeSettings; the change may have been made when the connection was lost.
    bool TestAndMerge(const core::IniFile& expected, const core::IniFile& changes);

    /// Replaces the selected groups by those of `settings` and persists that; a selected group that is not in it is
    /// erased, as by EraseGroups. Restricted groups stay as they are.
    /// @throws osa::Exception as MergeSettings.
    void OverwriteSettings(const GroupNameCollection& groups, const core::IniFile& settings);
    void OverwriteSettings(const std::string& group, const core::IniFile& settings);

    /// Replaces the groups of the same names.
    void OverwriteSettings(const core::IniFile& settings);

    /// Erases the selected groups, and records it, so that their defaults do not return at the next start.
    /// @throws osa::Exception as MergeSettings.
    void EraseGroups(const GroupNameCollection& groups);
    void EraseGroups(const std::string& group);

    /// Returns the selected groups to their defaults. Over an empty store in this process, which has none, it does
    /// nothing.
    /// @throws osa::Exception as MergeSettings.
    void RestoreToDefaults(const GroupNameCollection& groups);
    void RestoreToDefaults(const std::string& group);

    /// Subscribes the callback to changes of the groups, beside those that it is subscribed to already. With a server,
    /// this returns once the request is on its way; a read with the same client afterwards returns when the server has
    /// the subscription. The client subscribes again by itself whenever it reconnects; changes that were made while it
    /// was away are reported only if ReportMissedChanges asks for that.
    /// @param pCallback borrowed; must stay alive until it is unsubscribed or the client is destroyed. With a local
    ///        client only the latter counts; see UnSubscribe.
    /// @throws osa::Exception "callback was NULL"; "KorloSettingsClient::Subscribe not supported in single threaded
    ///         mode", always, in SingleThreaded and LocalSingleThreaded; without a connection as in Failures, and the
    ///         callback is then not subscribed.
    void Subscribe(IChangeCallback* pCallback, const GroupNameCollection& groups);
    void Subscribe(IChangeCallback* pCallback, const std::string& group);

    /// Drops all groups of the callback at once; an unknown one is ignored. When it returns, no call to the callback is
    /// under way, unless it was the callback that called: so hold no lock that a callback takes. Needs no server.
    /// **A local client goes on calling the callback until the client is destroyed** (Local, and any mode with
    /// KORLO_SETTINGS_LOCALFILE).
    void UnSubscribe(IChangeCallback* pCallback);

    /// Says whether subscribers are told, after the connection was lost, what has changed meanwhile. Off at the start.
    ///
    /// Each time that a multi-threaded client has connected again, and has made its subscriptions again, it then reads
    /// all groups that callbacks asked for, before calls may send, and compares. A callback is called, as for a change
    /// and before all changes from then on, with those of its groups that differ from what they held when this client
    /// last delivered them, and with those of which it does not know: whole groups, and by its name alone a group that
    /// is gone or may not be read any more. A group that was never delivered is compared with what this client read,
    /// by any of the calls that read, before anybody subscribed to it: so **read first, then subscribe**, as
    /// SettingsWatcher, IniWatcher and LogManager do. What was not read before counts as unknown, and is reported once.
    /// Two changes while the client was away are one call, and a group that is as it was is none.
    ///
    /// Where a callback throws, that change counts as missed and is reported once more after the reconnection.
    ///
    ///     KorloSettingsClient client(KorloSettingsClient::MultiThreaded);
    ///     client.ReportMissedChanges(true);  // before anything is read
    ///
    /// It costs a read of the subscribed groups for each reconnection, during which calls wait as they do without a
    /// connection, and the name and eight bytes for each of the groups; no content is kept. While it is off nothing is
    /// sent and nothing kept for it.
    ///
    /// May be called at any time, from callbacks, too. What was read or delivered before it is turned on counts as
    /// unknown. Turning it off forgets everything; when that returns, no such call is under way, unless it was the
    /// callback that called. Calling it with what it is already changes nothing. Local modes, LocalMultiThreaded among
    /// them, miss nothing, and the others have no subscribers: there it does nothing.
    void ReportMissedChanges(bool isWanted);

    /// Tells `pCallback` whether the client has a connection: now, on the calling thread, and then, with a
    /// multi-threaded client, whenever that changes, on its reader thread: true when callers may send and all
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
