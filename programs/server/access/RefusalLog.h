#pragma once
// Tells the log what was refused to clients, without letting them fill it.

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "PlainMutex.h"
#include "korlo/core/Logger.h"
#include "korlo/osa/ThreadAnnotations.h"
#include "korlo/osa/TimeMonotonic.h"
#include "settings/GroupNameCollection.h"

namespace korlo::daemon
{

/// Warns once for each client and group in a minute; the next warning about them says how many were held back since. A
/// client that connects anew is the same client. One that asks for ever new groups gets one warning a minute for all
/// beyond the first few, and so do all clients together once there are very many.
///
/// Thread safety: all methods, from any thread. What is warned of is worked out under a lock and logged after it.
class RefusalLog
{
public:
    static constexpr std::size_t MostGroups = 64;     ///< of a client that are told apart at once
    static constexpr std::size_t MostEntries = 1000;  ///< clients and groups that are told apart at once
    static constexpr std::size_t MostBytes = 128;     ///< of a name, which a client chooses

    RefusalLog();
    RefusalLog(const RefusalLog&) = delete;
    RefusalLog& operator=(const RefusalLog&) = delete;

    /// @param source what all connections of the client have in common.
    /// @param client as people know it: "user www-data, pid 812 (php-fpm)".
    /// @param operation, refused as IClientAccess::OnRefused has them.
    /// @param now of the monotonic clock.
    void Add(const std::string& source, const std::string& client, const std::string& operation,
             const settings::GroupNameCollection& refused, const osa::TimeStruct& now) KORLO_EXCLUDES(_mutex);

private:
    using Key = std::pair<std::string, std::string>;  // the source, and what the warning calls the group
    using Warnings = std::vector<std::string>;

    struct Entry
    {
        std::int64_t warnedAt;  // seconds
        std::uint64_t heldBack;
        std::string client;
    };

    void AddGroup(const Key& wanted, const std::string& client, const std::string& operation, std::int64_t now,
                  Warnings& warnings) KORLO_REQUIRES(_mutex);
    Key PlaceFor(const Key& wanted, std::int64_t now, Warnings& warnings) KORLO_REQUIRES(_mutex);
    bool HasRoomFor(const Key& key) const KORLO_REQUIRES(_mutex);
    void ForgetOld(std::int64_t now, Warnings& warnings) KORLO_REQUIRES(_mutex);

    core::Logger* const _pLogger;  // not owned

    PlainMutex _mutex;
    std::map<Key, Entry> _entries KORLO_GUARDED_BY(_mutex);
    std::int64_t _forgottenAt KORLO_GUARDED_BY(_mutex) = -1;  // seconds; looking through all takes a while
};

}  // namespace korlo::daemon
