#pragma once
// Tells the log what was refused to a client, without letting the client fill it.

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

#include "korlo/core/Logger.h"
#include "korlo/osa/TimeMonotonic.h"
#include "settings/GroupNameCollection.h"

namespace korlo::daemon
{

/// Warns once for each group in a minute; the next warning about the group says how many were held back since. A client
/// that asks for ever new groups gets one warning a minute for all beyond the first few.
///
/// Thread safety: none of its own; the owner guards it.
class RefusalLog
{
public:
    static constexpr std::size_t MostGroups = 64;  ///< that are told apart at once
    static constexpr std::size_t MostBytes = 128;  ///< of a name, which a client chooses

    /// @param client as people know it: "user www-data, pid 812 (php-fpm)".
    explicit RefusalLog(const std::string& client);

    /// @param operation, refused as IClientAccess::OnRefused has them.
    /// @param now of the monotonic clock.
    void Add(const std::string& operation, const settings::GroupNameCollection& refused, const osa::TimeStruct& now);

private:
    struct Entry
    {
        std::int64_t warnedAt;  // seconds
        std::uint64_t heldBack;
    };

    void AddGroup(const std::string& operation, const std::string& name, std::int64_t now);
    void ForgetOld(std::int64_t now);

    const std::string _client;
    core::Logger* const _pLogger;           // not owned
    std::map<std::string, Entry> _entries;  // by what the warning calls the group
};

}  // namespace korlo::daemon
