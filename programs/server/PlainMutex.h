#pragma once
// A lock for a few lines, which clang checks the users of.

#include <mutex>

#include "korlo/osa/ThreadAnnotations.h"

namespace korlo::daemon
{

/// std::mutex, annotated. A std::condition_variable_any waits with it.
///
/// Thread safety: all methods, from any thread.
class KORLO_CAPABILITY("mutex") PlainMutex
{
public:
    // Not analysed: clang knows nothing of the lock inside.
    void lock() KORLO_ACQUIRE() KORLO_NO_THREAD_SAFETY_ANALYSIS { _mutex.lock(); }
    void unlock() KORLO_RELEASE() KORLO_NO_THREAD_SAFETY_ANALYSIS { _mutex.unlock(); }

private:
    std::mutex _mutex;
};

/// Holds a mutex to the end of its scope.
///
/// Thread safety: none of its own; it lives and dies on one thread.
class KORLO_SCOPED_CAPABILITY PlainLock
{
public:
    explicit PlainLock(PlainMutex& mutex) KORLO_ACQUIRE(mutex) : _mutex(mutex) { _mutex.lock(); }
    PlainLock(const PlainLock&) = delete;
    PlainLock& operator=(const PlainLock&) = delete;
    ~PlainLock() KORLO_RELEASE() { _mutex.unlock(); }

private:
    PlainMutex& _mutex;
};

}  // namespace korlo::daemon
