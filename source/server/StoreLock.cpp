#include "server/StoreLock.h"

namespace korlo::settings::server
{
namespace
{

/// A destructor must not throw, and a lock that cannot be released leaves nothing to be done about it.
// Not analysed: whether a hold ends here, and of which kind, is what the two destructors declare.
void ReleaseQuietly(osa::ReadWriteLock& lock) noexcept KORLO_NO_THREAD_SAFETY_ANALYSIS
{
    try
    {
        lock.Release();
    }
    catch (...)
    {
    }
}

}  // namespace

StoreReadLock::StoreReadLock(osa::ReadWriteLock& lock) : _lock(lock)
{
    _lock.ReadLock(osa::Infinite);
}

StoreReadLock::~StoreReadLock()
{
    ReleaseQuietly(_lock);
}

StoreWriteLock::StoreWriteLock(osa::ReadWriteLock& lock) : _lock(lock)
{
    _lock.WriteLock(osa::Infinite);
}

StoreWriteLock::StoreWriteLock(osa::ReadWriteLock& lock, AdoptTag) : _lock(lock)
{
}

StoreWriteLock::~StoreWriteLock()
{
    ReleaseQuietly(_lock);
}

}  // namespace korlo::settings::server
