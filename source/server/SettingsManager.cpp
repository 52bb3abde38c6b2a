#include "settings/server/SettingsManager.h"

#include <algorithm>
#include <iterator>
#include <sstream>
#include <typeindex>
#include <utility>

#include "korlo/core/GetSecondFromPairFunctor.h"
#include "server/ChangeReport.h"
#include "server/ErasedGroups.h"
#include "server/StoreCounter.h"
#include "server/StoreLock.h"
#include "server/UserLayerEdit.h"
#include "settings/server/GroupDiscriminator.h"

namespace korlo::settings::server
{
namespace
{

using common::GroupNameMatcher;
using core::IniFile;

IniFile UnrestrictedCopy(const IniFile& source)
{
    IniFile copy;
    GroupDiscriminator::MergeUnrestrictedGroups(copy, source);
    return copy;
}

/// The part of the changes that is accepted: all of them as they are, or where groups are restricted, a copy without.
const IniFile& UnrestrictedOf(const IniFile& changes, IniFile& copy)
{
    const auto isRestricted = [](const auto& group) { return GroupDiscriminator::IsRestrictedGroup(group.first); };
    if (std::none_of(changes.begin(), changes.end(), isRestricted))
    {
        return changes;
    }
    GroupDiscriminator::MergeUnrestrictedGroups(copy, changes);
    return copy;
}

GroupNameMatcher MatcherOf(const std::string& nameOrPattern)
{
    GroupNameMatcher matcher;
    matcher.AddNameOrPattern(nameOrPattern);
    return matcher;
}

}  // namespace

SettingsManager::SettingsManager()
    : _pPersister(nullptr),
      _pRestrictedLoader(nullptr),
      _pIncludeFilter(nullptr),
      _pPriorityFilter(std::make_unique<LoadPriorityIncludeFilter>()),
      _lock("SettingsMutex"),
      _pCounter(std::make_unique<StoreCounter>())
{
}

// Not analysed: the lock is left taken on purpose, for LoadSettings to release, on whichever thread that is called.
SettingsManager::SettingsManager(ISettingsPersister* pPersister, IRestrictedSettingsLoader* pRestrictedLoader,
                                 IIncludeFilter* pIncludeFilter, bool deferLoad) KORLO_NO_THREAD_SAFETY_ANALYSIS
    : _pPersister(pPersister),
      _pRestrictedLoader(pRestrictedLoader),
      _pIncludeFilter(pIncludeFilter),
      _pPriorityFilter(std::make_unique<LoadPriorityIncludeFilter>()),
      _lock("SettingsMutex"),
      _pCounter(std::make_unique<StoreCounter>())
{
    _lock.WriteLock(osa::Infinite);
    if (!deferLoad)
    {
        LoadSettings();
    }
}

SettingsManager::~SettingsManager() = default;

// Not analysed: the hold that the constructor began ends here.
void SettingsManager::LoadSettings() KORLO_NO_THREAD_SAFETY_ANALYSIS
{
    if (_pPersister == nullptr)
    {
        return;  // and the store stays locked: see the constructor
    }
    const StoreWriteLock lock(_lock, StoreWriteLock::AdoptTag());
    const StoreCounter::Recounting recounting(*_pCounter, _settings);  // what was loaded before a failure, too
    LoadLayers();
}

void SettingsManager::LoadLayers()
{
    ++_version;

    // 1. The defaults, filtered.
    SettingsCombiner combiner(_settings);
    ConfigureSettingsCombiner(combiner);
    _pPersister->LoadDefaultSettings(combiner);

    // 2. The user layer over them; what it records as erased is taken out of the defaults first.
    LoadUserSettings();
    RemoveErasedGroups();
    _settings.MergeSettings(_userSettings);

    // 3. Whatever restricted group came so far came by a door that is not for it.
    GroupDiscriminator::FilterOutRestrictedGroups(_settings);
    if (_pRestrictedLoader != nullptr)
    {
        IniFile restricted;
        SettingsCombiner restrictedCombiner(restricted);
        ConfigureSettingsCombiner(restrictedCombiner);
        _pRestrictedLoader->LoadRestrictedSettings(restrictedCombiner);
        _settings.MergeSettings(restricted);
    }

    // 4. The record of erased groups came in with the user layer, and is not for clients.
    _settings.RemoveGroup(ErasedGroups);
}

// Not analysed: it works on the user layer without the lock, which LoadSettings holds around it.
void SettingsManager::LoadUserSettings() KORLO_NO_THREAD_SAFETY_ANALYSIS
{
    if (_pPersister == nullptr)
    {
        return;
    }
    SettingsCombiner combiner(_userSettings);
    _pPersister->LoadUserSettings(combiner);
    GroupDiscriminator::FilterOutRestrictedGroups(_userSettings);
}

void SettingsManager::ConfigureSettingsCombiner(SettingsCombiner& combiner) const
{
    if (_pIncludeFilter != nullptr)
    {
        combiner.AddFilter(_pIncludeFilter);
    }
    combiner.AddFilter(_pPriorityFilter.get());
}

void SettingsManager::RemoveErasedGroups()
{
    const auto record = _userSettings.Find(ErasedGroups);
    if (record == _userSettings.end())
    {
        return;
    }
    GroupNameMatcher matcher;
    std::transform(record->second.begin(), record->second.end(), common::GroupNameMatcherInsertIterator(&matcher),
                   core::GetSecondFromPairFunctor<std::string, std::string>());
    GroupNameCollection erased;
    matcher.GetMatchingGroups(_settings, erased);
    for (const std::string& group : erased)
    {
        _settings.RemoveGroup(group);
    }
}

void SettingsManager::GetGroups(IniFile& out, const GroupNameMatcher& matcher) const
{
    const StoreReadLock lock(_lock);
    matcher.MergeMatchingGroups(_settings, out);
}

void SettingsManager::GetGroups(IniFile& out, const std::string& nameOrPattern) const
{
    GetGroups(out, MatcherOf(nameOrPattern));
}

void SettingsManager::GetLayers(const GroupNameCollection& names, IniFile& settings, IniFile& userSettings) const
{
    const StoreReadLock lock(_lock);
    for (const std::string& name : names)
    {
        settings.MergeSettings(_settings, name);
        userSettings.MergeSettings(_userSettings, name);
    }
}

void SettingsManager::DumpUserSettings(std::ostream& os) const
{
    const StoreReadLock lock(_lock);
    _userSettings.SaveToStream(os);
}

void SettingsManager::DumpAllSettings(std::ostream& os) const
{
    const StoreReadLock lock(_lock);
    _settings.SaveToStream(os);
}

void SettingsManager::WriteGroups(std::ostream& os, const GroupNameMatcher& matcher,
                                  const ISettingsSerializer& serializer) const
{
    const StoreReadLock lock(_lock);
    serializer.OnSerialize(_settings, matcher, os);
}

/// A text, and all that it depends on.
struct SettingsManager::Notification
{
    std::uint64_t version;
    std::type_index form;  // serializers have no state
    // cppcheck-suppress unusedStructMember ; it does not see that WriteNotification uses them
    GroupNameCollection groups;
    // cppcheck-suppress unusedStructMember
    std::string text;
};

std::shared_ptr<const std::string> SettingsManager::WriteNotification(const GroupNameCollection& groups,
                                                                      const ISettingsSerializer& serializer,
                                                                      NotificationWriter write) const
{
    constexpr std::size_t mostKeptBytes = 64 * 1024;
    const std::type_index form = typeid(serializer);

    // Held to the end: what is compared with the version must not change before it is written. Others read meanwhile,
    // so two that notify at once may both write the text, and the later one is kept.
    const StoreReadLock lock(_lock);
    std::shared_ptr<const Notification> pNotification;
    {
        const osa::MutexAutoLock lastLock(&_notificationMutex);
        pNotification = _pLastNotification;
    }
    if (!pNotification || pNotification->version != _version || pNotification->form != form ||
        pNotification->groups != groups)
    {
        std::ostringstream text;
        text.exceptions(std::ios::badbit);  // else a stream that is out of memory drops the rest without a word
        write(text, groups, _settings, serializer);
        pNotification =
            std::make_shared<const Notification>(Notification{_version, form, groups, std::move(text).str()});
        const osa::MutexAutoLock lastLock(&_notificationMutex);
        _pLastNotification = pNotification->text.size() <= mostKeptBytes ? pNotification : nullptr;
    }
    return {pNotification, &pNotification->text};
}

void SettingsManager::MergeSettings(const IniFile& changes, unsigned int flags)
{
    MergeSettings(changes, flags, nullptr);
}

void SettingsManager::MergeSettings(const IniFile& changes, unsigned int flags, const ChangeOrigin* pOrigin)
{
    IniFile copy;
    const IniFile& accepted = UnrestrictedOf(changes, copy);
    {
        const StoreWriteLock lock(_lock);
        const bool persists = (flags & DoNotPersist) == 0;
        ChangeReport report(_pObserver, pOrigin, persists ? operation::Merge : operation::MergeWithoutPersisting);
        report.ExpectMerge(_settings, accepted);
        PerformMergeUnlocked(accepted, flags);
        report.NoteDone();
    }
    _dispatcher.OnChange(accepted);  // behind the lock: a callback may read and change the store
}

void SettingsManager::PerformMergeUnlocked(const IniFile& changes, unsigned int flags)
{
    ++_version;
    MergeIntoSettings(changes);
    if ((flags & DoNotPersist) == 0)
    {
        // With the lock held: so saves come in the order of the changes, and none puts an older layer over a newer.
        UserLayerEdit edit = EditUserLayer();
        edit.ExpectMerge(changes);
        _userSettings.MergeSettings(changes);
        edit.Save();
    }
}

bool SettingsManager::TestAndMerge(const IniFile& expected, const IniFile& changes)
{
    return TestAndMerge(expected, changes, nullptr);
}

bool SettingsManager::TestAndMerge(const IniFile& expected, const IniFile& changes, const ChangeOrigin* pOrigin)
{
    IniFile copy;
    const IniFile& accepted = UnrestrictedOf(changes, copy);
    {
        const StoreWriteLock lock(_lock);
        if (!_settings.ContainsSettings(expected))
        {
            return false;
        }
        ChangeReport report(_pObserver, pOrigin, operation::TestAndMerge);
        report.ExpectMerge(_settings, accepted);
        PerformMergeUnlocked(accepted, 0);
        report.NoteDone();
    }
    _dispatcher.OnChange(accepted);
    return true;
}

void SettingsManager::OverwriteSettings(const GroupNameCollection& namesAndPatterns, const IniFile& replacement)
{
    OverwriteSettings(namesAndPatterns, replacement, nullptr);
}

void SettingsManager::OverwriteSettings(const GroupNameCollection& namesAndPatterns, const IniFile& replacement,
                                        const ChangeOrigin* pOrigin)
{
    GroupNameMatcher matcher;
    matcher.AddNamesAndPatterns(namesAndPatterns);
    const IniFile accepted = UnrestrictedCopy(replacement);
    GroupNameCollection changedGroups;
    {
        const StoreWriteLock lock(_lock);
        ++_version;
        matcher.GetMatchingGroups(_settings, changedGroups);
        GroupDiscriminator::FilterOutRestrictedGroups(changedGroups);
        ChangeReport report(_pObserver, pOrigin, operation::Overwrite);
        report.ExpectReplacement(_settings, changedGroups, accepted);
        UserLayerEdit edit = EditUserLayer();
        edit.ExpectReplacement(changedGroups, accepted);
        RemoveGroups(changedGroups);
        MergeIntoSettings(accepted);
        _userSettings.MergeSettings(accepted);
        // As they were asked for, not what they match now: defaults that come with a later version stay away, too.
        _userSettings.ValueListAppendUnique(ErasedGroups, namesAndPatterns);
        edit.Save();
        report.NoteDone();
    }
    changedGroups.merge(common::GroupNamesOf(accepted));
    _dispatcher.OnChange(changedGroups, accepted);
}

void SettingsManager::OverwriteSettings(const std::string& nameOrPattern, const IniFile& replacement)
{
    OverwriteSettings(GroupNameCollection{nameOrPattern}, replacement);
}

void SettingsManager::RestoreToDefaults(const GroupNameMatcher& matcher)
{
    RestoreToDefaults(matcher, nullptr);
}

void SettingsManager::RestoreToDefaults(const GroupNameMatcher& matcher, const ChangeOrigin* pOrigin)
{
    if (_pPersister == nullptr)
    {
        return;
    }
    {
        // A load that was deferred holds this lock and not the other: its filters and the persister serve it alone.
        const StoreReadLock loaded(_lock);
    }
    GroupNameCollection changedGroups;
    IniFile restored;
    {
        const osa::MutexAutoLock restoring(&_restoreMutex);
        const IniFile defaults = LoadFreshDefaults();

        const StoreWriteLock lock(_lock);
        ++_version;
        matcher.GetMatchingGroups(_userSettings, changedGroups);
        matcher.MergeMatchingGroups(defaults, restored);
        ChangeReport report(_pObserver, pOrigin, operation::Restore);
        report.ExpectReplacement(_settings, changedGroups, restored);
        UserLayerEdit edit = EditUserLayer();
        edit.ExpectReplacement(changedGroups, restored);
        RemoveGroups(changedGroups);

        // Into the user layer, too: where the record has the group as erased, the next start drops its default.
        _userSettings.MergeSettings(restored);
        MergeIntoSettings(restored);
        edit.Save();
        report.NoteDone();
    }
    changedGroups.merge(common::GroupNamesOf(restored));
    _dispatcher.OnChange(changedGroups, restored);
}

IniFile SettingsManager::LoadFreshDefaults()
{
    IniFile defaults;
    SettingsCombiner combiner(defaults);
    ConfigureSettingsCombiner(combiner);
    _pPersister->LoadDefaultSettings(combiner);
    return defaults;
}

void SettingsManager::RemoveGroups(const GroupNameCollection& names)
{
    for (const std::string& name : names)
    {
        _pCounter->CountRemoval(_settings, name);
        _settings.RemoveGroup(name);
        _userSettings.RemoveGroup(name);
    }
}

/// Every change comes here once.
void SettingsManager::MergeIntoSettings(const IniFile& changes)
{
    _pCounter->CountChange();
    try
    {
        _pCounter->Merge(changes, _settings);
    }
    catch (...)
    {
        _pCounter->Recount(_settings);  // memory ran out in the middle
        throw;
    }
}

StoreFigures SettingsManager::GetFigures() const
{
    return _pCounter->GetFigures();
}

UserLayerEdit SettingsManager::EditUserLayer()
{
    return UserLayerEdit({_pPersister, _pChangePersister}, _userSettings, _isUserLayerDue);
}

void SettingsManager::Subscribe(IChangeCallback* pCallback, const GroupNameMatcher& groups)
{
    _dispatcher.AddCallback(pCallback, groups);
}

void SettingsManager::Subscribe(IChangeCallback* pCallback, const GroupNameCollection& groups)
{
    _dispatcher.AddCallback(pCallback, groups);
}

void SettingsManager::Subscribe(IChangeCallback* pCallback, const std::string& nameOrPattern)
{
    _dispatcher.AddCallback(pCallback, MatcherOf(nameOrPattern));
}

void SettingsManager::Unsubscribe(IChangeCallback* pCallback)
{
    _dispatcher.Remove(pCallback);
}

std::size_t SettingsManager::CountSubscriptions(IChangeCallback* pCallback) const
{
    return _dispatcher.CountSubscriptions(pCallback);
}

void SettingsManager::GetAllSubscribedGroups(GroupNameCollection& groups) const
{
    _dispatcher.GetAllSubscribedGroups(groups);
}

}  // namespace korlo::settings::server
