#include "settings/common/CallbackDispatcher.h"

#include <algorithm>
#include <iterator>

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

}  // namespace

CallbackDispatcher::CallbackDispatcher() : _mutex(nullptr)
{
}

CallbackDispatcher::~CallbackDispatcher() = default;

void CallbackDispatcher::AddCallback(IChangeCallback* pCallback, const GroupNameCollection& groups)
{
    GroupNameMatcher matcher;
    matcher.AddNamesAndPatterns(groups);
    AddCallback(pCallback, matcher);
}

void CallbackDispatcher::AddCallback(IChangeCallback* pCallback, const GroupNameMatcher& matcher)
{
    if (pCallback == nullptr)
    {
        throw osa::Exception("%s was NULL", "callback");
    }
    const osa::MutexAutoLock lock(&_mutex);
    Merge(pCallback, matcher);
}

void CallbackDispatcher::Merge(IChangeCallback* pCallback, const GroupNameMatcher& matcher)
{
    _subscriptions[pCallback].Merge(matcher);

    // Rebuilt now and then: in a server that runs for years, subscribers come and go.
    constexpr std::size_t slack = 64;
    if (++_addedToEverything > 2 * _subscriptions.size() + slack)
    {
        _everything = GroupNameMatcher();
        for (const auto& [pSubscriber, subscribed] : _subscriptions)
        {
            _everything.Merge(subscribed);
        }
        _addedToEverything = _subscriptions.size();
    }
    else
    {
        _everything.Merge(matcher);
    }
}

void CallbackDispatcher::OnChange(const GroupNameCollection& changedGroups, const core::IniFile& settings) const
{
    const osa::MutexAutoLock lock(&_mutex);
    if (!_everything.SelectsAny(changedGroups))
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
    GroupNameCollection names;
    std::transform(settings.begin(), settings.end(), std::inserter(names, names.end()),
                   GetFirstFromPairFunctor<std::string, core::IniFile::KeyValueMap>());
    OnChange(names, settings);
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

}  // namespace korlo::settings::common
