#include "access/RefusalLog.h"

#include <iterator>

namespace korlo::daemon
{
namespace
{

constexpr std::int64_t SecondsBetween = 60;

const char* const OtherClients = "other clients";
const char* const OtherGroups = "other groups";

/// What the log calls the group: never a text above, and never longer than a line should be.
std::string Quoted(const std::string& name)
{
    const bool isLong = name.size() > RefusalLog::MostBytes;
    return "'" + (isLong ? name.substr(0, RefusalLog::MostBytes) + "..." : name) + "'";
}

}  // namespace

RefusalLog::RefusalLog() : _pLogger(core::Logger::GetLogger("Access"))
{
}

void RefusalLog::Add(const std::string& source, const std::string& client, const std::string& operation,
                     const settings::GroupNameCollection& refused, const osa::TimeStruct& now)
{
    Warnings warnings;
    {
        const PlainLock lock(_mutex);
        for (const std::string& name : refused)
        {
            AddGroup({source, Quoted(name)}, client, operation, now.seconds, warnings);
        }
    }
    for (const std::string& warning : warnings)
    {
        _pLogger->Warning("%s", warning.c_str());
    }
}

void RefusalLog::AddGroup(const Key& wanted, const std::string& client, const std::string& operation, std::int64_t now,
                          Warnings& warnings)
{
    const Key key = PlaceFor(wanted, now, warnings);
    const auto [place, isNew] = _entries.try_emplace(key, Entry{now, 0, {}});
    Entry& entry = place->second;
    entry.client = key.first == wanted.first ? client : OtherClients;
    if (!isNew && now - entry.warnedAt < SecondsBetween)
    {
        ++entry.heldBack;
        return;
    }
    const std::string since =
        entry.heldBack == 0 ? "" : ", as were " + std::to_string(entry.heldBack) + " more since the last warning";
    entry.warnedAt = now;
    entry.heldBack = 0;
    warnings.push_back(entry.client + ": " + operation + " of " + key.second + " is refused" + since);
}

/// Where there is no place of its own for the client and group, it is one that many share.
RefusalLog::Key RefusalLog::PlaceFor(const Key& wanted, std::int64_t now, Warnings& warnings)
{
    if (!HasRoomFor(wanted) && _forgottenAt != now)
    {
        ForgetOld(now, warnings);
    }
    if (HasRoomFor(wanted))
    {
        return wanted;
    }
    const Key shared{wanted.first, OtherGroups};
    return HasRoomFor(shared) ? shared : Key{OtherClients, OtherGroups};
}

bool RefusalLog::HasRoomFor(const Key& key) const
{
    if (_entries.contains(key))
    {
        return true;
    }
    std::size_t ofClient = 0;
    for (auto entry = _entries.lower_bound({key.first, {}}); entry != _entries.end() && entry->first.first == key.first;
         ++entry)
    {
        ++ofClient;
    }
    return _entries.size() < MostEntries && (ofClient < MostGroups || key.second == OtherGroups);
}

/// What nothing was held back of has nothing left to tell.
void RefusalLog::ForgetOld(std::int64_t now, Warnings& warnings)
{
    _forgottenAt = now;
    for (auto entry = _entries.begin(); entry != _entries.end();)
    {
        const bool isOver = now - entry->second.warnedAt >= SecondsBetween;
        if (isOver && entry->second.heldBack != 0)
        {
            warnings.push_back(entry->second.client + ": " + entry->first.second + " was refused " +
                               std::to_string(entry->second.heldBack) + " more times since the last warning");
        }
        entry = isOver ? _entries.erase(entry) : std::next(entry);
    }
}

}  // namespace korlo::daemon
