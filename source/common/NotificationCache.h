#pragma once
// The notification that was written last, for the subscribers that are to get the same.

#include <cstdint>
#include <memory>
#include <string>
#include <typeindex>

#include "korlo/osa/Mutex.h"
#include "settings/GroupNameCollection.h"

namespace korlo::settings::server
{

/// Holds one text. A change goes to its subscribers one after the other, and most of them get the same bytes: making
/// them once is most of what a change to hundreds of subscribers costs.
///
/// Thread safety: all methods, from any thread.
class NotificationCache
{
public:
    /// What a text depends on: the state of the store, the form, and the groups.
    struct Key
    {
        std::uint64_t storeVersion;  // of SettingsManager::GetVersion
        std::type_index serializer;  // serializers have no state
        const GroupNameCollection& groups;
    };

    /// The one of the process, which is never destroyed.
    static NotificationCache& Instance();

    /// The text for that key, or null.
    std::shared_ptr<const std::string> Find(const Key& key) const KORLO_EXCLUDES(_mutex);

    /// Takes the place of the text before. A text of more than 64 KiB is not kept.
    void Keep(const Key& key, std::shared_ptr<const std::string> pText) KORLO_EXCLUDES(_mutex);

private:
    mutable osa::Mutex _mutex;
    std::uint64_t _storeVersion KORLO_GUARDED_BY(_mutex) = 0;
    std::type_index _serializer KORLO_GUARDED_BY(_mutex) = typeid(void);
    GroupNameCollection _groups KORLO_GUARDED_BY(_mutex);
    std::shared_ptr<const std::string> _pText KORLO_GUARDED_BY(_mutex);
};

}  // namespace korlo::settings::server
