#include "access/RefusalLog.h"

#include <iterator>

namespace korlo::daemon
{
namespace
{

constexpr std::int64_t SecondsBetween = 60;

const char* const Others = "other groups";

/// What the log calls the group: never the text above, and never longer than a line should be.
std::string Quoted(const std::string& name)
{
    const bool isLong = name.size() > RefusalLog::MostBytes;
    return "'" + (isLong ? name.substr(0, RefusalLog::MostBytes) + "..." : name) + "'";
}

}  // namespace

RefusalLog::RefusalLog(const std::string& client) : _client(client), _pLogger(core::Logger::GetLogger("Access"))
{
}

void RefusalLog::Add(const std::string& operation, const settings::GroupNameCollection& refused,
                     const osa::TimeStruct& now)
{
    for (const std::string& name : refused)
    {
        AddGroup(operation, Quoted(name), now.seconds);
    }
}

void RefusalLog::AddGroup(const std::string& operation, const std::string& name, std::int64_t now)
{
    if (!_entries.contains(name) && _entries.size() >= MostGroups)
    {
        ForgetOld(now);
    }
    const std::string key = _entries.contains(name) || _entries.size() < MostGroups ? name : Others;
    const auto entry = _entries.find(key);
    if (entry != _entries.end() && now - entry->second.warnedAt < SecondsBetween)
    {
        ++entry->second.heldBack;
        return;
    }
    const std::uint64_t heldBack = entry == _entries.end() ? 0 : entry->second.heldBack;
    const std::string since =
        heldBack == 0 ? "" : ", as were " + std::to_string(heldBack) + " more since the last warning";
    _pLogger->Warning("%s: %s of %s is refused%s", _client.c_str(), operation.c_str(), key.c_str(), since.c_str());
    _entries[key] = {now, 0};
}

/// What nothing was held back of has nothing left to tell.
void RefusalLog::ForgetOld(std::int64_t now)
{
    for (auto entry = _entries.begin(); entry != _entries.end();)
    {
        const bool isOver = now - entry->second.warnedAt >= SecondsBetween;
        if (isOver && entry->second.heldBack != 0)
        {
            _pLogger->Warning("%s: %s was refused %llu more times since the last warning", _client.c_str(),
                              entry->first.c_str(), static_cast<unsigned long long>(entry->second.heldBack));
        }
        entry = isOver ? _entries.erase(entry) : std::next(entry);
    }
}

}  // namespace korlo::daemon
