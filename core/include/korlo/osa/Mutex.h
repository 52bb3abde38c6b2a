#pragma once
// Mutual exclusion between the threads of one process.

#include <atomic>
#include <mutex>
#include <string>
#include <thread>

#include "korlo/osa/ThreadAnnotations.h"

namespace korlo::osa
{

/// The time-out, in milliseconds, that never runs out. A time-out of 0 does not wait at all.
inline constexpr unsigned int Infinite = 0xFFFFFFFFu;

/// A lock that one thread holds at a time. The thread that holds it may take it again; it is free for others after as
/// many releases. Time-outs run on the monotonic clock: setting the time of day does not lengthen or shorten them.
///
/// Thread safety: all methods, from any thread.
class KORLO_CAPABILITY("mutex") Mutex
{
public:
    /// @param name labels the lock in error texts; it is copied and may be null.
    explicit Mutex(const char* name = nullptr);
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    /// Takes the lock, or throws LockException (Timeout, with a text that names the mutex) when `timeoutMs` is up.
    void Lock(unsigned int timeoutMs) KORLO_ACQUIRE();

    /// Takes the lock and returns true, or returns false when `timeoutMs` is up.
    bool TryLock(unsigned int timeoutMs) KORLO_TRY_ACQUIRE(true);

    /// Undoes one Lock. Throws LockException (NotHeld) when the calling thread does not hold the lock.
    void Release() KORLO_RELEASE();

private:
    bool Acquire(unsigned int timeoutMs);

    const std::string _name;
    std::recursive_timed_mutex _mutex;
    std::atomic<std::thread::id> _holder;  // no thread's while the lock is free; a thread only ever looks for itself
    unsigned int _depth = 0;               // how often the holder has taken the lock
};

/// Holds a mutex from its construction to the end of its scope.
///
///     const MutexAutoLock lock(&_mutex);
///
/// Thread safety: none of its own; it lives and dies on one thread.
class KORLO_SCOPED_CAPABILITY MutexAutoLock
{
public:
    /// Takes the mutex, however long that takes.
    /// @param pMutex borrowed, not null; must outlive this object.
    explicit MutexAutoLock(Mutex* pMutex) KORLO_ACQUIRE(pMutex);

    /// Takes the mutex, with a time limit.
    /// @param pMutex borrowed, not null; must outlive this object.
    /// @param throwOnTimeout what to do when `timeoutMs` is up: true throws the LockException of Mutex::Lock, false
    ///        goes on without the lock, and the caller must ask IsLocked before it touches what the mutex guards.
    MutexAutoLock(Mutex* pMutex, unsigned int timeoutMs, bool throwOnTimeout) KORLO_ACQUIRE(pMutex);
    MutexAutoLock(const MutexAutoLock&) = delete;
    MutexAutoLock& operator=(const MutexAutoLock&) = delete;
    ~MutexAutoLock() KORLO_RELEASE();

    /// False only when the time was up and the constructor was told not to throw.
    bool IsLocked() const;

private:
    Mutex* const _pHeld;  // borrowed; null when the time was up
};

}  // namespace korlo::osa
