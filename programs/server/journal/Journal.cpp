#include "journal/Journal.h"

#include <algorithm>
#include <chrono>
#include <iterator>
#include <limits>
#include <memory>
#include <new>
#include <string_view>
#include <utility>

namespace korlo::daemon
{
namespace
{

using settings::server::ChangedNames;
using settings::server::ChangeOrigin;
using settings::server::ChangeOutcome;

constexpr std::size_t RefusalShare = 4;          // refusals have one part of so many
constexpr std::size_t OwnBytes = 2 * 1024;       // the object, and what the queue of entries takes beside them
constexpr std::size_t MostPeerBytes = 128;       // a path of a socket has at most 108
constexpr std::size_t EntriesSeenInAStep = 64;   // while the lock is held
constexpr std::size_t EntriesCopiedInAStep = 8;  // while the lock is held

std::uint32_t Capped(std::size_t number)
{
    return static_cast<std::uint32_t>(std::min<std::size_t>(number, std::numeric_limits<std::uint32_t>::max()));
}

/// What a block takes: a length beside it, and a multiple of the heap's unit.
constexpr std::size_t HeapBytes(std::size_t size)
{
    constexpr std::size_t unit = 2 * sizeof(std::size_t);
    return (size + sizeof(std::size_t) + unit - 1) / unit * unit;
}

}  // namespace

Journal::Journal(std::size_t mostEntries, ReadClock readClock)
    : _mostEntries(mostEntries),
      _mostRefusals(mostEntries / RefusalShare),
      _mostBytes(std::max(mostEntries, UsualEntries) * (UsualBytes / UsualEntries)),
      _readClock(readClock)
{
}

std::int64_t Journal::Now()
{
    using std::chrono::duration_cast;
    using std::chrono::milliseconds;
    return duration_cast<milliseconds>(std::chrono::system_clock::now().time_since_epoch()).count();
}

void Journal::OnChange(const ChangeOrigin* pOrigin, const char* what, ChangeOutcome outcome,
                       const ChangedNames& names) noexcept
{
    try
    {
        const ClientOrigin& origin = pOrigin != nullptr ? static_cast<const ClientOrigin&>(*pOrigin) : _nobody;
        Enter(Make(origin, what, outcome, names));
    }
    catch (const std::bad_alloc&)
    {
        // What was changed stays changed; nobody reads of it here.
    }
}

Journal::Change Journal::Make(const ClientOrigin& origin, const char* what, ChangeOutcome outcome,
                              const ChangedNames& names)
{
    Change change{};
    change.count = 1;
    change.connection = origin.connection;
    change.digest = names.GetDigest();
    change.what = what;
    change.more = Capped(names.GetMore());
    change.moreGroups = Capped(names.GetMoreGroups());
    change.user = origin.user.value_or(0);
    change.process = origin.process;
    origin.program.copy(change.program.data(), change.program.size() - 1);
    change.outcome = outcome;
    change.hasUser = origin.user.has_value();
    const std::string_view peer = std::string_view(origin.peer).substr(0, MostPeerBytes);
    change.peerBytes = static_cast<std::uint16_t>(peer.size());
    change.text.reserve(peer.size() + names.GetPacked().size());
    change.text.append(peer).append(names.GetPacked());
    return change;
}

void Journal::Enter(Change change)
{
    const PlainLock lock(_mutex);
    change.timeMs = _readClock();
    change.revision = _revision + 1;
    if (Change* const pRepeated = FindRepeated(change))
    {
        pRepeated->revision = change.revision;
        pRepeated->timeMs = change.timeMs;
        pRepeated->process = change.process;
        ++pRepeated->count;
    }
    else if (!change.IsRefusal() || _mostRefusals > 0)
    {
        Append(std::move(change));
    }
    else
    {
        return;
    }
    ++_revision;
    for (IJournalListener* const pListener : _listeners)
    {
        pListener->OnEntry();
    }
    _listeners.clear();
}

/// The newest entry that the change repeats, and may renew.
Journal::Change* Journal::FindRepeated(const Change& change)
{
    const auto repeated = std::find_if(_changes.rbegin(), _changes.rend(), [&change](const auto& pEntry) {
        return pEntry->digest == change.digest && pEntry->outcome == change.outcome && pEntry->more == change.more &&
               std::string_view(pEntry->what) == change.what && pEntry->GetNames() == change.GetNames() &&
               HaveSameAuthor(*pEntry, change);
    });
    return repeated != _changes.rend() && StandsAlone(**repeated) ? repeated->get() : nullptr;
}

bool Journal::HaveSameAuthor(const Change& left, const Change& right)
{
    if (left.hasUser || right.hasUser)
    {
        return left.hasUser == right.hasUser && left.user == right.user && left.program == right.program;
    }
    return left.connection == right.connection && left.GetPeer() == right.GetPeer();
}

/// True when no later entry is by somebody else and about the same. What was looked at once is not looked at again: no
/// entry ever gets other names.
bool Journal::StandsAlone(Change& change) const
{
    const std::uint64_t checked = std::max(change.number, change.checkedUpTo);
    for (auto later = _changes.rbegin(); later != _changes.rend() && (*later)->number > checked; ++later)
    {
        if ((*later)->IsRefusal() == change.IsRefusal() && !HaveSameAuthor(**later, change) &&
            MayHaveCommonName(**later, change))
        {
            return false;
        }
    }
    change.checkedUpTo = _lastNumber;
    return true;
}

bool Journal::MayHaveCommonName(const Change& left, const Change& right)
{
    if (left.more == 0 && right.more == 0)
    {
        return ChangedNames::HaveCommonName(left.GetNames(), right.GetNames());
    }
    return left.moreGroups > 0 || right.moreGroups > 0 ||
           ChangedNames::HaveCommonGroup(left.GetNames(), right.GetNames());
}

void Journal::Append(Change change)
{
    const std::size_t bytes = BytesOf(change);
    if (change.IsRefusal())
    {
        while (_refusals + 1 > _mostRefusals || _refusalBytes + bytes > _mostBytes / RefusalShare)
        {
            DropOldestRefusal();
        }
    }
    while (_changes.size() + 1 > _mostEntries || OwnBytes + _bytes + bytes > _mostBytes)
    {
        Drop(_changes.begin());
    }
    const bool isRefusal = change.IsRefusal();
    change.number = _lastNumber + 1;
    _changes.push_back(std::make_unique<Change>(std::move(change)));
    _bytes += bytes;
    _refusals += isRefusal ? 1 : 0;
    _refusalBytes += isRefusal ? bytes : 0;
    ++_lastNumber;
}

void Journal::DropOldestRefusal()
{
    Drop(std::find_if(_changes.begin(), _changes.end(), [](const auto& pEntry) { return pEntry->IsRefusal(); }));
}

void Journal::Drop(const Changes::iterator& change)
{
    const std::size_t bytes = BytesOf(**change);
    _bytes -= bytes;
    _refusals -= (*change)->IsRefusal() ? 1 : 0;
    _refusalBytes -= (*change)->IsRefusal() ? bytes : 0;
    _changes.erase(change);
}

std::size_t Journal::BytesOf(const Change& change)
{
    return sizeof(std::unique_ptr<Change>) + HeapBytes(sizeof(Change)) + HeapBytes(change.text.capacity() + 1);
}

std::size_t Journal::GetBytes() const
{
    const PlainLock lock(_mutex);
    return OwnBytes + _bytes;
}

std::uint64_t Journal::GetRevision() const
{
    const PlainLock lock(_mutex);
    return _revision;
}

std::uint64_t Journal::GetLastNumber() const
{
    const PlainLock lock(_mutex);
    return _lastNumber;
}

bool Journal::Read(Walk& walk, std::vector<JournalEntry>& entries) const
{
    if (entries.capacity() - entries.size() < EntriesCopiedInAStep)
    {
        entries.reserve(2 * entries.capacity() + EntriesCopiedInAStep);  // not while the lock is held
    }
    const PlainLock lock(_mutex);
    const auto isBefore = [](std::uint64_t number, const auto& pChange) { return number < pChange->number; };
    auto next = std::upper_bound(_changes.begin(), _changes.end(), walk.afterNumber, isBefore);
    const auto end = std::upper_bound(next, _changes.end(), walk.upToNumber, isBefore);
    std::size_t copied = 0;
    for (std::size_t seen = 0; next != end && seen < EntriesSeenInAStep && copied < EntriesCopiedInAStep;
         ++next, ++seen)
    {
        const Change& change = **next;
        walk.afterNumber = change.number;
        if (change.revision > walk.afterRevision)
        {
            entries.push_back(EntryOf(change));
            ++copied;
        }
    }
    return next != end;
}

JournalEntry Journal::EntryOf(const Change& change)
{
    JournalEntry entry;
    entry.number = change.number;
    entry.revision = change.revision;
    entry.timeMs = change.timeMs;
    entry.count = change.count;
    entry.what = change.what;
    entry.outcome = change.outcome;
    entry.peer = change.GetPeer();
    entry.user = change.hasUser ? std::optional(change.user) : std::nullopt;
    entry.process = change.process;
    entry.program = change.program.data();
    entry.names = change.GetNames();
    entry.more = change.more;
    entry.moreGroups = change.moreGroups;
    return entry;
}

void Journal::Arm(IJournalListener& listener, std::uint64_t afterRevision)
{
    const PlainLock lock(_mutex);
    if (_revision > afterRevision)
    {
        listener.OnEntry();
        return;
    }
    _listeners.push_back(&listener);
}

void Journal::Disarm(IJournalListener& listener)
{
    const PlainLock lock(_mutex);
    std::erase(_listeners, &listener);
}

}  // namespace korlo::daemon
