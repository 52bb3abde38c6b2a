#pragma once
// Who asked for which groups, and the delivery of a change to them.

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

#include "korlo/osa/Mutex.h"
#include "settings/GroupNameCollection.h"
#include "settings/IChangeCallback.h"
#include "settings/common/GroupNameMatcher.h"

namespace korlo::settings
{

namespace client
{
class KorloSettingsClientImpl;
class MissedChanges;
}  // namespace client

namespace server
{
class SettingsManager;
}  // namespace server

namespace common
{

/// Keeps, for each subscriber, the names and patterns that it asked for, and calls it with the changed groups among
/// them. Subscribers are borrowed and never deleted.
///
/// One mutex guards the subscriptions and is held while callbacks run: deliveries never overlap, each subscriber hears
/// of changes in the order in which they are dispatched, and once a subscriber has been removed under the mutex no call
/// to it is under way, except the one that removes itself. The mutex may be taken again by its holder, so a callback
/// may subscribe, unsubscribe (itself, too) and make changes that are dispatched here in turn. It is taken when the
/// store's lock has been released, never inside it.
///
/// Thread safety: all methods, from any thread.
class CallbackDispatcher
{
public:
    CallbackDispatcher();
    ~CallbackDispatcher();
    CallbackDispatcher(const CallbackDispatcher&) = delete;
    CallbackDispatcher& operator=(const CallbackDispatcher&) = delete;

    /// Adds names and patterns to what the subscriber has asked for so far. A subscriber is called once for a change,
    /// however often it subscribed. Costs what is added times the logarithm of all that is subscribed; where memory
    /// runs out, nothing is added.
    /// @param pCallback borrowed; must stay alive until it is removed or the dispatcher is destroyed.
    /// @throws osa::Exception "%s was NULL" for a null callback.
    void AddCallback(IChangeCallback* pCallback, const GroupNameCollection& groups) KORLO_EXCLUDES(_mutex);
    void AddCallback(IChangeCallback* pCallback, const GroupNameMatcher& matcher) KORLO_EXCLUDES(_mutex);

    /// Calls each subscriber that asked for any of `changedGroups`, in ascending order of address, on the calling
    /// thread, with `_mutex` held. A throw ends the walk and passes out.
    void OnChange(const GroupNameCollection& changedGroups, const core::IniFile& settings) const KORLO_EXCLUDES(_mutex);

    /// The same with all groups of `settings` as the changed ones. Callbacks are given a copy of it: what they do to
    /// the document of whoever made the change is not seen by the next one. Allocates nothing where nobody is
    /// subscribed.
    void OnChange(const core::IniFile& settings) const KORLO_EXCLUDES(_mutex);

    /// How many names and patterns the subscriber has asked for, each counted once.
    std::size_t CountSubscriptions(IChangeCallback* pCallback) const KORLO_EXCLUDES(_mutex);

    /// Adds to `groups` every name and every pattern of every subscriber; `groups` is not cleared first.
    void GetAllSubscribedGroups(GroupNameCollection& groups) const KORLO_EXCLUDES(_mutex);

    /// True when any subscriber asked for the group, by name or by pattern. Allocates nothing.
    bool IsAskedFor(const std::string& group) const KORLO_EXCLUDES(_mutex);

    /// True when any subscriber asked for the group by its exact name. Allocates nothing.
    bool IsAskedForByName(const std::string& group) const KORLO_EXCLUDES(_mutex);

private:
    // The classes that remove subscribers.
    friend class korlo::settings::client::KorloSettingsClientImpl;
    friend class korlo::settings::client::MissedChanges;
    friend class korlo::settings::server::SettingsManager;

    using SubscriptionMap = std::map<IChangeCallback*, GroupNameMatcher>;

    /// Counts how many subscribers asked for each name and each pattern, so that a change that concerns nobody is
    /// recognised by one look-up for each of its groups, however many subscribers there are. Of a name it keeps no copy
    /// but a hash: where two names share one, a change may pass that concerns nobody, which costs a walk and nothing
    /// else.
    ///
    /// Thread safety: none of its own; the owner guards it.
    class Index
    {
    public:
        /// Counts the entries of `asked`, except those that the subscriber has asked for before (null: none).
        void Count(const GroupNameMatcher& asked, const GroupNameMatcher* pBefore);

        /// Adds the counts of `other`, and takes its memory for it.
        void Add(Index&& other) noexcept;

        /// Takes the entries of one subscriber off the counts.
        void Remove(const GroupNameMatcher& subscribed) noexcept;

        bool SelectsAny(const GroupNameCollection& groups) const;
        bool SelectsAny(const core::IniFile& groups) const;

        /// False when nobody asked for the name; true when somebody did, or for a name of the same hash.
        bool MayHoldName(const std::string& name) const;

        /// True when a pattern matches the name.
        bool PatternMatches(const std::string& name) const;

    private:
        template <typename Groups>
        bool AnyPatternSelects(const Groups& groups) const;

        std::map<std::uint32_t, std::uint32_t> _names;  // by the hash
        std::map<std::string, std::uint32_t> _patterns;
    };

    /// Takes what it moves out of `asked`. Does all or nothing.
    void Add(IChangeCallback* pCallback, GroupNameMatcher&& asked) KORLO_EXCLUDES(_mutex);

    /// Drops all that the subscriber has asked for; an unknown one is ignored. For those who remove subscribers.
    void Remove(IChangeCallback* pCallback) KORLO_EXCLUDES(_mutex);

    /// False when nobody asked for any group of the document.
    bool MayConcernAny(const core::IniFile& settings) const KORLO_EXCLUDES(_mutex);

    bool IsNamed(const std::string& group) const KORLO_REQUIRES(_mutex);

    // How many subscribers there are. It changes with _mutex held and is read without: who has subscribed before a
    // change has it counted before, too, in the order that subscriber and change have by the store's lock or any other;
    // and who subscribes meanwhile may be told or not.
    std::atomic<std::size_t> _subscriberCount = 0;

    mutable osa::Mutex _mutex;
    SubscriptionMap _subscriptions KORLO_GUARDED_BY(_mutex);  // keys borrowed
    Index _index KORLO_GUARDED_BY(_mutex);                    // of all that is in the map, and of nothing else
};

}  // namespace common
}  // namespace korlo::settings
