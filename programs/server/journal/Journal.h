#pragma once
// The last changes of the settings, and of what was refused.

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <sys/types.h>

#include "PlainMutex.h"
#include "journal/ClientOrigin.h"
#include "settings/server/IChangeObserver.h"

namespace korlo::daemon
{

/// One entry, as a reader gets it.
///
/// Thread safety: none of its own; the owner guards it.
struct JournalEntry
{
    std::uint64_t number = 0;    ///< counted from 1
    std::uint64_t revision = 0;  ///< of the journal, when it was made or renewed last
    std::int64_t timeMs = 0;     ///< since 1970, of the last of the changes that it stands for
    std::uint64_t count = 1;     ///< how many changes it stands for
    const char* what = "";       ///< one of settings::server::operation
    settings::server::ChangeOutcome outcome = settings::server::ChangeOutcome::Done;
    std::string peer;
    std::optional<uid_t> user;
    int process = 0;  ///< of the last of the changes
    std::string program;
    std::string names;           ///< packed, see ChangedNames::Visit
    std::size_t more = 0;        ///< see ChangedNames
    std::size_t moreGroups = 0;  ///< see ChangedNames
};

/// Hears that there is something to read.
///
/// Thread safety: called on the thread of whoever makes a change, with the journal locked: it must be quick, and must
/// not call the journal.
class IJournalListener
{
public:
    virtual ~IJournalListener() = default;

    virtual void OnEntry() = 0;
};

/// Keeps the last changes in memory: who changed which keys when, and how it ended; never a value.
///
/// A change that only repeats an entry renews it: it keeps its number and place, and gets the time, the process and a
/// higher count. It repeats an entry when operation, outcome and keys are the same, user and program are (where there
/// is no user: the connection is), and there is no entry since by anybody else about any of the keys. A refusal alters
/// nothing, so refusals and changes do not stand between each other. Where names were left out of one of two lists,
/// they are taken to be about the same when they share a group, or groups were left out of either.
///
/// Numbers have no gaps when they are given; a reader that sees one knows how many entries it has missed. The oldest
/// entry goes when there are too many, or they take too many bytes. Refusals take at most a quarter of either: beyond
/// it the oldest refusal goes.
///
/// Thread safety: all methods, from any thread. The one lock is held for as long as it takes to enter a change or to
/// copy a few entries. Changes come with the store's lock held, so that is taken before this one, and nothing is taken
/// inside it but what a listener takes to be woken.
class Journal : public settings::server::IChangeObserver
{
public:
    static constexpr std::size_t UsualEntries = 256;
    static constexpr std::size_t MostEntries = 4096;  ///< a change may have to look at each
    static constexpr std::size_t UsualBytes = 64 * 1024;

    using ReadClock = std::int64_t (*)();

    /// @param mostEntries 1 to MostEntries. Beyond UsualEntries each may take as many bytes as those do.
    /// @param readClock milliseconds since 1970.
    explicit Journal(std::size_t mostEntries, ReadClock readClock = &Now);
    Journal(const Journal&) = delete;
    Journal& operator=(const Journal&) = delete;
    ~Journal() override = default;

    /// Enters a change. One for which memory does not suffice is not entered, and gets no number.
    /// @param pOrigin a ClientOrigin, or null.
    void OnChange(const settings::server::ChangeOrigin* pOrigin, const char* what,
                  settings::server::ChangeOutcome outcome,
                  const settings::server::ChangedNames& names) noexcept override KORLO_EXCLUDES(_mutex);

    /// Goes up with each change that is entered, be it a new entry or a renewed one.
    std::uint64_t GetRevision() const KORLO_EXCLUDES(_mutex);

    /// That of the newest entry; 0 while there was none.
    std::uint64_t GetLastNumber() const KORLO_EXCLUDES(_mutex);

    /// What a reader has asked for, and how far it is. From a new one on, Read until it returns false.
    struct Walk
    {
        std::uint64_t afterNumber = 0;    ///< entries up to this one are left out
        std::uint64_t afterRevision = 0;  ///< entries that were made or renewed up to this one are left out
        std::uint64_t upToNumber = 0;     ///< and those behind this one, so that a walk ends however many are made
    };

    /// Adds some of the next entries, in the order of their numbers.
    /// @return false when there are no more.
    bool Read(Walk& walk, std::vector<JournalEntry>& entries) const KORLO_EXCLUDES(_mutex);

    /// Lets the listener hear of the next entry that is made or renewed after the revision, once: at once if there is
    /// one.
    /// @param listener borrowed until Disarm.
    void Arm(IJournalListener& listener, std::uint64_t afterRevision) KORLO_EXCLUDES(_mutex);

    /// When it returns, the listener is not called, and not being called.
    void Disarm(IJournalListener& listener) KORLO_EXCLUDES(_mutex);

    /// The bytes that it takes, with what the heap adds.
    std::size_t GetBytes() const KORLO_EXCLUDES(_mutex);

private:
    /// An entry as it is kept: a few hundred of them, so bytes count.
    struct Change
    {
        std::uint64_t number;
        std::uint64_t revision;
        std::int64_t timeMs;
        std::uint64_t count;
        std::uint64_t checkedUpTo;  // up to this number no entry stands between this one and its repetition
        std::int64_t connection;
        std::size_t digest;
        const char* what;
        std::uint32_t more;
        std::uint32_t moreGroups;
        uid_t user;
        std::int32_t process;
        std::array<char, 16> program;  // ends with a zero byte
        std::uint16_t peerBytes;
        settings::server::ChangeOutcome outcome;
        bool hasUser;
        std::string text;  // the peer, and the names

        std::string_view GetPeer() const { return std::string_view(text).substr(0, peerBytes); }
        std::string_view GetNames() const { return std::string_view(text).substr(peerBytes); }
        bool IsRefusal() const { return outcome == settings::server::ChangeOutcome::Refused; }
    };

    using Changes = std::deque<std::unique_ptr<Change>>;

    static std::int64_t Now();
    static Change Make(const ClientOrigin& origin, const char* what, settings::server::ChangeOutcome outcome,
                       const settings::server::ChangedNames& names);
    static bool HaveSameAuthor(const Change& left, const Change& right);
    static bool MayHaveCommonName(const Change& left, const Change& right);
    static std::size_t BytesOf(const Change& change);
    static JournalEntry EntryOf(const Change& change);

    void Enter(Change change) KORLO_EXCLUDES(_mutex);
    Change* FindRepeated(const Change& change) KORLO_REQUIRES(_mutex);
    bool StandsAlone(Change& change) const KORLO_REQUIRES(_mutex);
    void Append(Change change) KORLO_REQUIRES(_mutex);
    void Drop(const Changes::iterator& change) KORLO_REQUIRES(_mutex);
    void DropOldestRefusal() KORLO_REQUIRES(_mutex);

    const std::size_t _mostEntries;
    const std::size_t _mostRefusals;
    const std::size_t _mostBytes;
    const ReadClock _readClock;
    const ClientOrigin _nobody;

    mutable PlainMutex _mutex;
    Changes _changes KORLO_GUARDED_BY(_mutex);  // by number
    std::size_t _bytes KORLO_GUARDED_BY(_mutex) = 0;
    std::size_t _refusals KORLO_GUARDED_BY(_mutex) = 0;
    std::size_t _refusalBytes KORLO_GUARDED_BY(_mutex) = 0;
    std::uint64_t _lastNumber KORLO_GUARDED_BY(_mutex) = 0;
    std::uint64_t _revision KORLO_GUARDED_BY(_mutex) = 0;
    std::vector<IJournalListener*> _listeners KORLO_GUARDED_BY(_mutex);  // of those who wait
};

}  // namespace korlo::daemon
