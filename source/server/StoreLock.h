#pragma once
// Scoped holds of the store's lock.

#include "korlo/osa/Mutex.h"
#include "korlo/osa/ReadWriteLock.h"

namespace korlo::settings::server
{

/// Holds a lock for reading to the end of the scope.
///
/// Thread safety: none of its own; it lives and dies on one thread.
class KORLO_SCOPED_CAPABILITY StoreReadLock
{
public:
    /// @param lock borrowed; must outlive this object.
    explicit StoreReadLock(osa::ReadWriteLock& lock) KORLO_ACQUIRE_SHARED(lock);
    StoreReadLock(const StoreReadLock&) = delete;
    StoreReadLock& operator=(const StoreReadLock&) = delete;
    ~StoreReadLock() KORLO_RELEASE();

private:
    osa::ReadWriteLock& _lock;
};

/// Holds a lock for writing to the end of the scope.
///
/// Thread safety: none of its own; it lives and dies on one thread.
class KORLO_SCOPED_CAPABILITY StoreWriteLock
{
public:
    struct AdoptTag
    {
    };

    /// @param lock borrowed; must outlive this object.
    explicit StoreWriteLock(osa::ReadWriteLock& lock) KORLO_ACQUIRE(lock);

    /// Takes over a hold that somebody else, on any thread, has begun.
    StoreWriteLock(osa::ReadWriteLock& lock, AdoptTag) KORLO_REQUIRES(lock);
    StoreWriteLock(const StoreWriteLock&) = delete;
    StoreWriteLock& operator=(const StoreWriteLock&) = delete;
    ~StoreWriteLock() KORLO_RELEASE();

private:
    osa::ReadWriteLock& _lock;
};

}  // namespace korlo::settings::server
