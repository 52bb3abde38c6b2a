#pragma once
// The settings store.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <ostream>
#include <string>

#include "korlo/core/IniFile.h"
#include "korlo/osa/Mutex.h"
#include "korlo/osa/ReadWriteLock.h"
#include "settings/GroupNameCollection.h"
#include "settings/IChangeCallback.h"
#include "settings/common/CallbackDispatcher.h"
#include "settings/common/GroupNameMatcher.h"
#include "settings/server/IChangeObserver.h"
#include "settings/server/IChangePersister.h"
#include "settings/server/IIncludeFilter.h"
#include "settings/server/IRestrictedSettingsLoader.h"
#include "settings/server/ISettingsPersister.h"
#include "settings/server/ISettingsSerializer.h"
#include "settings/server/LoadPriorityIncludeFilter.h"
#include "settings/server/SettingsCombiner.h"
#include "settings/server/StoreFigures.h"

namespace korlo::settings::server
{

class StoreCounter;
class UserLayerEdit;

/// The one authoritative copy of all settings, in memory, shared by every client.
///
/// It is built from three layers: defaults, over them the user layer (all persistent changes of clients), over them the
/// restricted settings. Restricted groups (see GroupDiscriminator) enter through the restricted loader alone; in
/// anything else they are dropped silently.
///
/// An overwrite records what it erased in the group "KorloSettings/Data/DeletedGroups" of the user layer, so that the
/// defaults of an erased group do not come back at the next load. Clients do not see that group.
///
/// What an operation costs depends on the groups that it touches and on the logarithm of all of them.
///
/// Thread safety: all methods, from any thread, but LoadSettings and LoadUserSettings, which belong to the owner that
/// builds the store. Readers share one read/write lock; a change holds it for writing while it is made and saved, so
/// saves never overlap, and a test-and-merge tests and merges under one hold. Subscribers are called after the lock has
/// been released, on the thread that made the change: a callback may use the store, and two changes made at nearly the
/// same time may be announced in either order. No method waits with a time limit.
class SettingsManager
{
public:
    /// A merge flag: change the current settings only, not the user layer, and save nothing. Other bits mean nothing.
    static constexpr unsigned int DoNotPersist = 1;

    /// An empty store without storage: it never loads, saves or restores.
    SettingsManager();

    /// A store over storage. All three are borrowed, must outlive the store, and may be null for "none".
    /// @param pIncludeFilter edits every default and restricted document, before the load priorities are applied.
    /// @param deferLoad false loads before the constructor returns; true returns with the store locked against
    ///        everybody, until LoadSettings is called, from any thread.
    /// With a null persister there is nothing that LoadSettings could load, and the store stays locked for ever: where
    /// there is no storage, use the default constructor.
    SettingsManager(ISettingsPersister* pPersister, IRestrictedSettingsLoader* pRestrictedLoader,
                    IIncludeFilter* pIncludeFilter, bool deferLoad);

    SettingsManager(const SettingsManager&) = delete;
    SettingsManager& operator=(const SettingsManager&) = delete;

    /// Saves nothing. Nobody may be using the store any more.
    ~SettingsManager();

    /// Loads all layers and lets readers and writers in. Call it exactly once, on a store that was built with
    /// deferLoad. With a null persister it returns at once and the store stays locked. What the persister or the loader
    /// throws passes out, and the store is unlocked with what had been loaded by then.
    void LoadSettings();

    /// Loads the user layer, without filters, and drops restricted groups from it. Takes no lock: part of LoadSettings.
    void LoadUserSettings();

    /// Lets the observer hear of each change from now on; part of building the store, before anybody else uses it.
    /// Without one nothing is worked out for it. A change that PerformMergeUnlocked makes for others is not told.
    /// @param pObserver borrowed, may be null; must outlive the last change.
    void SetChangeObserver(IChangeObserver* pObserver) { _pObserver = pObserver; }

    /// Null where there is none.
    IChangeObserver* GetChangeObserver() const { return _pObserver; }

    /// Hands each change of the user layer to this one from now on, where the persister would get the whole layer; part
    /// of building the store, before anybody else uses it. After a change that could not be told or saved, the
    /// persister gets the whole layer once, with the next one. Without it nothing is worked out for it.
    /// @param pChangePersister borrowed, may be null; must outlive the last change.
    void SetChangePersister(IChangePersister* pChangePersister) { _pChangePersister = pChangePersister; }

    /// Adds to the combiner the filters for defaults and restricted settings.
    void ConfigureSettingsCombiner(SettingsCombiner& combiner) const;

    /// Adds the selected groups, whole, to `out`, which is not cleared first.
    void GetGroups(core::IniFile& out, const common::GroupNameMatcher& matcher) const KORLO_EXCLUDES(_lock);
    void GetGroups(core::IniFile& out, const std::string& nameOrPattern) const KORLO_EXCLUDES(_lock);

    /// Adds the groups of these names, whole, as they are at one moment: to `settings` those of the current settings,
    /// to `userSettings` those of the user layer, of which the record of erased groups may be one. A pattern is a name
    /// like any other here. Neither document is cleared first.
    void GetLayers(const GroupNameCollection& names, core::IniFile& settings, core::IniFile& userSettings) const
        KORLO_EXCLUDES(_lock);

    /// Writes the user layer as INI text, the record of erased groups included.
    void DumpUserSettings(std::ostream& os) const KORLO_EXCLUDES(_lock);

    /// Writes the current settings as INI text.
    void DumpAllSettings(std::ostream& os) const KORLO_EXCLUDES(_lock);

    /// Writes the selected groups in the serializer's form. The store is locked for reading meanwhile, so `os` should
    /// be one that does not wait.
    void WriteGroups(std::ostream& os, const common::GroupNameMatcher& matcher,
                     const ISettingsSerializer& serializer) const KORLO_EXCLUDES(_lock);

    /// Writes what a subscriber is sent of these groups of `settings`.
    using NotificationWriter = void (*)(std::ostream& os, const GroupNameCollection& groups,
                                        const core::IniFile& settings, const ISettingsSerializer& serializer);

    /// The text of a notification of the groups as the store holds them now. A change goes to its subscribers one after
    /// the other, and most of them get the same bytes: so the text that was made last is kept (up to 64 KiB of it) and
    /// shared by whoever asks for the same groups in the same form until something changes.
    /// @param write makes the text, with the store locked for reading; the same function in all calls. What it throws
    ///        passes out, and so does std::bad_alloc from the stream that it writes to: no text is returned in part.
    std::shared_ptr<const std::string> WriteNotification(const GroupNameCollection& groups,
                                                         const ISettingsSerializer& serializer,
                                                         NotificationWriter write) const KORLO_EXCLUDES(_lock);

    /// Merges `changes` into the settings and, unless `flags` holds DoNotPersist, into the user layer, which is then
    /// saved. Subscribers hear of all groups of `changes`. What the persister throws passes out; the change is then
    /// made but not announced.
    void MergeSettings(const core::IniFile& changes, unsigned int flags) KORLO_EXCLUDES(_lock);

    /// The same, and the observer hears who has made the change. So with each of the changes below.
    /// @param pOrigin passed to the observer as it is; may be null.
    void MergeSettings(const core::IniFile& changes, unsigned int flags, const ChangeOrigin* pOrigin)
        KORLO_EXCLUDES(_lock);

    /// The merge alone, for callers that hold the lock: nothing is filtered and nobody is notified.
    void PerformMergeUnlocked(const core::IniFile& changes, unsigned int flags) KORLO_REQUIRES(_lock);

    /// Merges and persists `changes` if the current settings hold every value of `expected`; otherwise changes nothing,
    /// notifies nobody and returns false. `expected` is compared with everything, restricted groups included.
    bool TestAndMerge(const core::IniFile& expected, const core::IniFile& changes) KORLO_EXCLUDES(_lock);
    bool TestAndMerge(const core::IniFile& expected, const core::IniFile& changes, const ChangeOrigin* pOrigin)
        KORLO_EXCLUDES(_lock);

    /// Replaces the selected unrestricted groups by the groups of `replacement`, and persists that: a selected group
    /// that is not in it is erased. Every entry of `namesAndPatterns`, also one that selects nothing, is recorded as
    /// erased, so that at the next load the defaults it selects are dropped. Subscribers hear of the erased groups and
    /// of those of `replacement`.
    void OverwriteSettings(const GroupNameCollection& namesAndPatterns, const core::IniFile& replacement)
        KORLO_EXCLUDES(_lock);
    void OverwriteSettings(const std::string& nameOrPattern, const core::IniFile& replacement) KORLO_EXCLUDES(_lock);
    void OverwriteSettings(const GroupNameCollection& namesAndPatterns, const core::IniFile& replacement,
                           const ChangeOrigin* pOrigin) KORLO_EXCLUDES(_lock);

    /// Removes the groups of the user layer that are selected, and writes the selected defaults, read anew, into the
    /// user layer and the settings. A selected group that no persistent change ever touched is not removed first, only
    /// overwritten. The record of erased groups stays as it is: at the next load it drops those groups' defaults again
    /// and the copies in the user layer bring the same values back. Does nothing, and notifies nobody, without a
    /// persister. Waits for a load that was deferred before it reads anything.
    void RestoreToDefaults(const common::GroupNameMatcher& matcher) KORLO_EXCLUDES(_lock);
    void RestoreToDefaults(const common::GroupNameMatcher& matcher, const ChangeOrigin* pOrigin) KORLO_EXCLUDES(_lock);

    /// How much the store holds. Takes no lock: it answers while a change waits for the disk, or a load is deferred.
    StoreFigures GetFigures() const;

    /// Subscribes the callback to changes of the groups; see CallbackDispatcher::AddCallback.
    void Subscribe(IChangeCallback* pCallback, const common::GroupNameMatcher& groups);
    void Subscribe(IChangeCallback* pCallback, const GroupNameCollection& groups);
    void Subscribe(IChangeCallback* pCallback, const std::string& nameOrPattern);

    /// Drops all groups of the callback; an unknown one is ignored. When it returns, no call to the callback is under
    /// way, unless it was the callback that called.
    void Unsubscribe(IChangeCallback* pCallback);

    /// How many names and patterns the callback has asked for, each counted once.
    std::size_t CountSubscriptions(IChangeCallback* pCallback) const;

    /// Adds to `groups` every name and pattern that somebody is subscribed to.
    void GetAllSubscribedGroups(GroupNameCollection& groups) const;

private:
    struct Notification;

    void LoadLayers() KORLO_REQUIRES(_lock);
    void RemoveErasedGroups() KORLO_REQUIRES(_lock);
    UserLayerEdit EditUserLayer() KORLO_REQUIRES(_lock);
    core::IniFile LoadFreshDefaults() KORLO_REQUIRES(_restoreMutex);
    void RemoveGroups(const GroupNameCollection& names) KORLO_REQUIRES(_lock);
    void MergeIntoSettings(const core::IniFile& changes) KORLO_REQUIRES(_lock);

    ISettingsPersister* _pPersister;                              // borrowed, may be null
    IRestrictedSettingsLoader* _pRestrictedLoader;                // borrowed, may be null
    IIncludeFilter* _pIncludeFilter;                              // borrowed, may be null
    std::unique_ptr<LoadPriorityIncludeFilter> _pPriorityFilter;  // its memory of claims lives as long as the store
    IChangeObserver* _pObserver = nullptr;                        // borrowed, may be null
    IChangePersister* _pChangePersister = nullptr;                // borrowed, may be null

    mutable osa::ReadWriteLock _lock;
    core::IniFile _userSettings KORLO_GUARDED_BY(_lock);
    core::IniFile _settings KORLO_GUARDED_BY(_lock);
    bool _isUserLayerDue KORLO_GUARDED_BY(_lock) = false;  // a change of it has failed: the next save takes it whole

    const std::unique_ptr<StoreCounter> _pCounter;  // of `_settings`; kept with `_lock` held, read without

    common::CallbackDispatcher _dispatcher;

    std::uint64_t _version KORLO_GUARDED_BY(_lock) = 0;  // counts the changes of _settings
    mutable osa::Mutex _notificationMutex;               // taken inside `_lock`, and nothing is taken inside it
    mutable std::shared_ptr<const Notification> _pLastNotification KORLO_GUARDED_BY(_notificationMutex);
    osa::Mutex _restoreMutex;  // one restore at a time reads defaults through the filters; taken before `_lock`
};

}  // namespace korlo::settings::server
