#pragma once
// What a client knows of the groups that it watches: enough to tell, after it was away, which ones are different.

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

#include "korlo/core/IniFile.h"
#include "settings/GroupNameCollection.h"
#include "settings/common/CallbackDispatcher.h"

namespace korlo::settings::client
{

/// Remembers of each group that a subscriber asked for what it held when it was last delivered or, where it never was,
/// read before the first subscription that selects it. A read after that does not count: it tells its caller what the
/// subscribers have not heard yet.
///
///     KnownGroups known(dispatcher);
///     known.NoteRead({"Network"}, answer);                            // an application reads,
///     known.NoteSubscription({"Network"});                            // subscribes,
///     known.BeginDelivery({"Network"});                               // and hears of changes
///     known.EndDelivery({"Network"}, notified);
///     const auto different = known.FindDifferent({"Network"}, now);   // after it was away
///
/// Of each group there is a digest of 64 bits and no content: FNV-1a over the lengths and the bytes of its keys and
/// values, in the order of the keys, so that neither the order of a text nor where a key ends and its value begins can
/// deceive it. Two contents of a group share a digest by accident once in 2^64 comparisons; a device that compares a
/// thousand groups every second would wait for that for half a billion years. Somebody who may write a group could look
/// for such a pair, and would hide his own change from clients that are away at that moment, which is no more than he
/// can do by not making it.
///
/// Where anything is in doubt (memory ran out, a subscription came in the middle of a read) a group counts as unknown,
/// and unknown groups count as different: rather one call too many than one too few.
///
/// Memory: an entry for each group that a subscriber asked for and that exists or is asked for by its exact name, and
/// for at most `MostReads` groups that were read and that nobody has asked for so far, or those of the last read alone.
///
/// Thread safety: none of its own; the owner guards it. The dispatcher's mutex is taken inside.
class KnownGroups
{
public:
    /// How many groups and patterns that were read, and that nobody asked for so far, are remembered.
    static constexpr std::size_t MostReads = 1024;

    /// @param dispatcher borrowed; must outlive this object. Its subscriptions change only with NoteSubscription before
    ///        and NoteUnsubscription after that.
    explicit KnownGroups(const common::CallbackDispatcher& dispatcher) : _dispatcher(dispatcher) {}

    /// Remembers what an application has read, of groups that nobody asked for so far. Where memory runs out, all reads
    /// are forgotten.
    void NoteRead(const GroupNameCollection& asked, const core::IniFile& answer) noexcept;

    /// Before the dispatcher is told of a subscription.
    void NoteSubscription(const GroupNameCollection& asked);

    /// After the dispatcher was told that a subscriber has gone: forgets what nobody asks for any more.
    void NoteUnsubscription() noexcept;

    /// Before the groups are delivered. They count as different until EndDelivery.
    void BeginDelivery(const GroupNameCollection& groups);

    /// @param settings what was delivered; a group that is missing there was erased.
    void EndDelivery(const GroupNameCollection& groups, const core::IniFile& settings) noexcept;

    /// The groups among those that were asked for that differ from what is known of them, or of which nothing is known:
    /// those of the answer, and those that are missing there.
    /// @param asked names and patterns. @param answer all groups that they select now.
    GroupNameCollection FindDifferent(const GroupNameCollection& asked, const core::IniFile& answer) const;

private:
    using Digest = std::uint64_t;
    using Digests = std::map<std::string, Digest>;

    // Two values that DigestOf never returns.
    static constexpr Digest Absent = 0;       // there was no such group
    static constexpr Digest Undelivered = 1;  // a delivery was begun and not ended

    static Digest DigestOf(const core::IniFile::KeyValueMap& group);

    void RememberRead(const GroupNameCollection& asked, const core::IniFile& answer);
    void TakeOver(const std::string& pattern, const GroupNameCollection& asked) noexcept;
    void ForgetReads() noexcept;

    const common::CallbackDispatcher& _dispatcher;
    Digests _known;                     // of groups that somebody asked for; Absent only if by name
    Digests _read;                      // of groups that nobody asked for
    GroupNameCollection _readPatterns;  // a group that they match and that is not in `_read` was not there
};

}  // namespace korlo::settings::client
