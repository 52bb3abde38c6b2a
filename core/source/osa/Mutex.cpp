#include "korlo/osa/Mutex.h"

#include <cerrno>
#include <chrono>

#include <pthread.h>

#include "korlo/osa/Exception.h"
#include "osa/TimedWait.h"

namespace korlo::osa
{

Mutex::Mutex(const char* name) : _name(LockName(name))
{
}

// The lock below is one that clang knows nothing of; the annotations of the header are what it checks callers by.
void Mutex::Lock(unsigned int timeoutMs) KORLO_NO_THREAD_SAFETY_ANALYSIS
{
    if (!TryLock(timeoutMs))
    {
        ThrowLockTimeout("mutex", _name, timeoutMs);
    }
}

// As Lock.
bool Mutex::TryLock(unsigned int timeoutMs) KORLO_NO_THREAD_SAFETY_ANALYSIS
{
    if (!Acquire(timeoutMs))
    {
        return false;
    }
    _holder.store(std::this_thread::get_id(), std::memory_order_relaxed);
    ++_depth;
    return true;
}

bool Mutex::Acquire(unsigned int timeoutMs)
{
    if (timeoutMs == Infinite)
    {
        // std::recursive_timed_mutex would tell of too many locks by an exception that is not ours.
        if (pthread_mutex_lock(_mutex.native_handle()) != 0)
        {
            throw LockException("Mutex '" + _name + "' was locked too many times by one thread",
                                LockException::Exhausted);
        }
        return true;
    }
    if (timeoutMs == 0)
    {
        return _mutex.try_lock();
    }
    const std::chrono::milliseconds limit(timeoutMs);
#ifdef __SANITIZE_THREAD__
    return _mutex.try_lock_until(std::chrono::system_clock::now() + limit);  // it sees no lock by the other clock
#else
    return _mutex.try_lock_for(limit);
#endif
}

// As Lock. std::recursive_timed_mutex would keep a release by the wrong thread to itself.
void Mutex::Release() KORLO_NO_THREAD_SAFETY_ANALYSIS
{
    if (_holder.load(std::memory_order_relaxed) != std::this_thread::get_id())
    {
        throw LockException("Mutex '" + _name + "' was released by a thread that does not hold it",
                            LockException::NotHeld);
    }
    if (--_depth == 0)
    {
        // Before the unlock: after it, the next holder may have entered itself already.
        _holder.store(std::thread::id(), std::memory_order_relaxed);
    }
    _mutex.unlock();
}

namespace
{

// Whether the lock was taken is known at run time only.
Mutex* Take(Mutex* pMutex, unsigned int timeoutMs, bool throwOnTimeout) KORLO_NO_THREAD_SAFETY_ANALYSIS
{
    if (pMutex == nullptr)
    {
        throw Exception("%s was NULL", "Mutex");
    }
    if (throwOnTimeout)
    {
        pMutex->Lock(timeoutMs);
        return pMutex;
    }
    return pMutex->TryLock(timeoutMs) ? pMutex : nullptr;
}

}  // namespace

MutexAutoLock::MutexAutoLock(Mutex* pMutex) : MutexAutoLock(pMutex, Infinite, true)
{
}

MutexAutoLock::MutexAutoLock(Mutex* pMutex, unsigned int timeoutMs, bool throwOnTimeout)
    : _pHeld(Take(pMutex, timeoutMs, throwOnTimeout))
{
}

MutexAutoLock::~MutexAutoLock()
{
    if (_pHeld != nullptr)
    {
        _pHeld->Release();
    }
}

bool MutexAutoLock::IsLocked() const
{
    return _pHeld != nullptr;
}

}  // namespace korlo::osa
