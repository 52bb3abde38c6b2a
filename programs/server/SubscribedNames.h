#pragma once
// What a client is subscribed to, for people to read.

#include <algorithm>
#include <cstddef>
#include <string>
#include <vector>

#include "PlainMutex.h"
#include "settings/GroupNameCollection.h"

namespace korlo::daemon
{

/// The first names and patterns that a client has subscribed to, and how many there are. Beside the store's own record
/// of them, whose lock may be held while somebody waits for the disk.
///
/// Thread safety: all methods, from any thread. The lock is held for no wait.
class SubscribedNames
{
public:
    static constexpr std::size_t MostBytes = 1024;  ///< of the names that are kept

    /// @param groups what was asked for now; a name that was asked for before is not kept twice.
    /// @param count how many there are by now.
    void Add(const settings::GroupNameCollection& groups, std::size_t count) KORLO_EXCLUDES(_mutex)
    {
        const PlainLock lock(_mutex);
        _count = count;
        for (const std::string& name : groups)
        {
            if (_bytes == MostBytes)
            {
                break;
            }
            if (_bytes + name.size() <= MostBytes && std::find(_names.begin(), _names.end(), name) == _names.end())
            {
                _names.push_back(name);
                _bytes += name.size();
            }
        }
    }

    /// @param names set to those that are kept.
    /// @return how many there are, with those that are not kept.
    std::size_t Get(std::vector<std::string>& names) const KORLO_EXCLUDES(_mutex)
    {
        const PlainLock lock(_mutex);
        names = _names;
        return _count;
    }

private:
    mutable PlainMutex _mutex;
    std::vector<std::string> _names KORLO_GUARDED_BY(_mutex);
    std::size_t _bytes KORLO_GUARDED_BY(_mutex) = 0;
    std::size_t _count KORLO_GUARDED_BY(_mutex) = 0;
};

}  // namespace korlo::daemon
