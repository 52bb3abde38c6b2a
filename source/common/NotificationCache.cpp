#include "common/NotificationCache.h"

#include <utility>

namespace korlo::settings::server
{
namespace
{

constexpr std::size_t MostBytes = 64 * 1024;

}  // namespace

NotificationCache& NotificationCache::Instance()
{
    static auto* const pInstance = new NotificationCache;  // handlers may run until the very end of the process
    return *pInstance;
}

std::shared_ptr<const std::string> NotificationCache::Find(const Key& key) const
{
    const osa::MutexAutoLock lock(&_mutex);
    const bool same = _storeVersion == key.storeVersion && _serializer == key.serializer && _groups == key.groups;
    return same ? _pText : nullptr;
}

void NotificationCache::Keep(const Key& key, std::shared_ptr<const std::string> pText)
{
    if (pText->size() > MostBytes)
    {
        return;
    }
    const osa::MutexAutoLock lock(&_mutex);
    _pText.reset();  // so that nothing is found should the next line run out of memory
    _groups = key.groups;
    _storeVersion = key.storeVersion;
    _serializer = key.serializer;
    _pText = std::move(pText);
}

}  // namespace korlo::settings::server
