#include "settings/common/CallbackDispatcher.h"

#include <algorithm>
#include <functional>
#include <utility>

#include "korlo/core/StringUtil.h"
#include "korlo/osa/Exception.h"

namespace korlo::settings::common
{
namespace
{

/// The changed groups that a subscriber hears of. Of a single one it is all or nothing, and needs no copy for each of
/// hundreds of subscribers.
/// @param copy holds the result where it is neither.
const GroupNameCollection& Select(const GroupNameMatcher& subscribed, const GroupNameCollection& changedGroups,
                                  GroupNameCollection& copy)
{
    copy.clear();
    if (changedGroups.size() == 1)
    {
        return subscribed.SelectsAny(changedGroups) ? changedGroups : copy;
    }
    subscribed.GetMatchingGroups(changedGroups, copy);
    return copy;
}

std::uint32_t HashOf(const std::string& name)
{
    return static_cast<std::uint32_t>(std::hash<std::string>()(name));
}

/// Entries that are new to `counts` move there, memory and all.
template <typename Counts>
void AddCounts(Counts& counts, Counts& added)
{
    counts.merge(added);
    for (const auto& [key, count] : added)
    {
        counts.find(key)->second += count;
    }
}

template <typename Counts>
void TakeOff(Counts& counts, const typename Counts::key_type& key)
{
    const auto entry = counts.find(key);
    if (--entry->second == 0)
    {
        counts.erase(entry);
    }
}

}  // namespace

CallbackDispatcher::CallbackDispatcher() : _mutex(nullptr)
{
}

CallbackDispatcher::~CallbackDispatcher() = default;

void CallbackDispatcher::Index::Count(const GroupNameMatcher& asked, const GroupNameMatcher* pBefore)
{
    for (const std::string& name : asked.GetNames())
    {
        if (pBefore == nullptr || !pBefore->GetNames().contains(name))
        {
            ++_names[HashOf(name)];
        }
    }
    for (const std::string& pattern : asked.GetPatterns())
    {
        if (pBefore == nullptr || !pBefore->GetPatterns().contains(pattern))
        {
            ++_patterns[pattern];
        }
    }
}

void CallbackDispatcher::Index::Add(Index&& other) noexcept
{
    AddCounts(_names, other._names);
    AddCounts(_patterns, other._patterns);
}

void CallbackDispatcher::Index::Remove(const GroupNameMatcher& subscribed) noexcept
{
    for (const std::string& name : subscribed.GetNames())
    {
        TakeOff(_names, HashOf(name));
    }
    for (const std::string& pattern : subscribed.GetPatterns())
    {
        TakeOff(_patterns, pattern);
    }
}

bool CallbackDispatcher::Index::SelectsAny(const GroupNameCollection& groups) const
{
    return std::any_of(groups.begin(), groups.end(), [this](const std::string& group) { return MayHoldName(group); }) ||
           AnyPatternSelects(groups);
}

bool CallbackDispatcher::Index::SelectsAny(const core::IniFile& groups) const
{
    return std::any_of(groups.begin(), groups.end(), [this](const auto& group) { return MayHoldName(group.first); }) ||
           AnyPatternSelects(groups);
}

template <typename Groups>
bool CallbackDispatcher::Index::AnyPatternSelects(const Groups& groups) const
{
    return std::any_of(_patterns.begin(), _patterns.end(), [&groups](const auto& pattern) {
        return GroupNameMatcher::PatternSelectsAny(pattern.first, groups);
    });
}

bool CallbackDispatcher::Index::MayHoldName(const std::string& name) const
{
    return _names.contains(HashOf(name));
}

bool CallbackDispatcher::Index::PatternMatches(const std::string& name) const
{
    return std::any_of(_patterns.begin(), _patterns.end(),
                       [&name](const auto& pattern) { return core::StringUtil::MatchesPattern(pattern.first, name); });
}

void CallbackDispatcher::AddCallback(IChangeCallback* pCallback, const GroupNameCollection& groups)
{
    GroupNameMatcher asked;
    asked.AddNamesAndPatterns(groups);
    Add(pCallback, std::move(asked));
}

void CallbackDispatcher::AddCallback(IChangeCallback* pCallback, const GroupNameMatcher& matcher)
{
    Add(pCallback, GroupNameMatcher(matcher));
}

void CallbackDispatcher::Add(IChangeCallback* pCallback, GroupNameMatcher&& asked)
{
    osa::NotNull(pCallback, "callback");
    const osa::MutexAutoLock lock(&_mutex);
    const auto known = _subscriptions.find(pCallback);
    Index counts;
    counts.Count(asked, known == _subscriptions.end() ? nullptr : &known->second);
    GroupNameMatcher& subscribed = _subscriptions[pCallback];
    // From here on nothing fails: a subscriber that the index knows nothing of would never be called.
    _index.Add(std::move(counts));
    subscribed.Merge(std::move(asked));
    _subscriberCount = _subscriptions.size();
}

void CallbackDispatcher::Remove(IChangeCallback* pCallback)
{
    SubscriptionMap::node_type removed;  // destroyed after the mutex is released
    const osa::MutexAutoLock lock(&_mutex);
    removed = _subscriptions.extract(pCallback);
    if (!removed.empty())
    {
        _index.Remove(removed.mapped());
        _subscriberCount = _subscriptions.size();
    }
}

void CallbackDispatcher::OnChange(const GroupNameCollection& changedGroups, const core::IniFile& settings) const
{
    const osa::MutexAutoLock lock(&_mutex);
    if (!_index.SelectsAny(changedGroups))
    {
        return;
    }
    GroupNameCollection copy;
    for (auto entry = _subscriptions.begin(); entry != _subscriptions.end();)
    {
        IChangeCallback* const pCallback = entry->first;
        const GroupNameCollection& selection = Select(entry->second, changedGroups, copy);
        if (!selection.empty())
        {
            pCallback->OnChange(selection, settings);
        }
        entry = _subscriptions.upper_bound(pCallback);  // the callback may have removed its own entry, or others
    }
}

void CallbackDispatcher::OnChange(const core::IniFile& settings) const
{
    if (_subscriberCount != 0 && MayConcernAny(settings))
    {
        OnChange(GroupNamesOf(settings), core::IniFile(settings));
    }
}

bool CallbackDispatcher::MayConcernAny(const core::IniFile& settings) const
{
    const osa::MutexAutoLock lock(&_mutex);
    return _index.SelectsAny(settings);
}

std::size_t CallbackDispatcher::CountSubscriptions(IChangeCallback* pCallback) const
{
    const osa::MutexAutoLock lock(&_mutex);
    const auto known = _subscriptions.find(pCallback);
    return known == _subscriptions.end() ? 0 : known->second.GetNames().size() + known->second.GetPatterns().size();
}

void CallbackDispatcher::GetAllSubscribedGroups(GroupNameCollection& groups) const
{
    const osa::MutexAutoLock lock(&_mutex);
    for (const auto& [pCallback, matcher] : _subscriptions)
    {
        groups.insert(matcher.GetNames().begin(), matcher.GetNames().end());
        groups.insert(matcher.GetPatterns().begin(), matcher.GetPatterns().end());
    }
}

bool CallbackDispatcher::IsAskedFor(const std::string& group) const
{
    const osa::MutexAutoLock lock(&_mutex);
    return _index.PatternMatches(group) || IsNamed(group);
}

bool CallbackDispatcher::IsAskedForByName(const std::string& group) const
{
    const osa::MutexAutoLock lock(&_mutex);
    return IsNamed(group);
}

bool CallbackDispatcher::IsNamed(const std::string& group) const
{
    return _index.MayHoldName(group) &&
           std::any_of(_subscriptions.begin(), _subscriptions.end(),
                       [&group](const auto& subscription) { return subscription.second.GetNames().contains(group); });
}

}  // namespace korlo::settings::common
