#include "korlo/osa/Semaphore.h"

#include "korlo/osa/Exception.h"
#include "osa/TimedWait.h"

namespace korlo::osa
{

Semaphore::Semaphore(const char* name, unsigned short maximum, unsigned short initial)
    : _name(LockName(name)),
      _maximum(maximum),
      _count(initial)
{
    if (initial > maximum)
    {
        throw Exception("Semaphore '%s' cannot start at %d, its maximum is %d", _name.c_str(), initial, maximum);
    }
}

bool Semaphore::Lock(unsigned int timeoutMs)
{
    if (!TryLock(timeoutMs))
    {
        ThrowLockTimeout("semaphore", _name, timeoutMs);
    }
    return true;
}

bool Semaphore::TryLock(unsigned int timeoutMs)
{
    std::unique_lock lock(_mutex);
    if (!WaitFor(_given, lock, timeoutMs, [this] { return _count > 0; }))
    {
        return false;
    }
    --_count;
    return true;
}

void Semaphore::Release()
{
    // Notified with the lock held: who is woken may destroy the semaphore as soon as it has what it waited for.
    const std::lock_guard lock(_mutex);
    if (_count == _maximum)
    {
        throw Exception("Semaphore '%s' released beyond its maximum of %d", _name.c_str(), _maximum);
    }
    ++_count;
    _given.notify_one();
}

}  // namespace korlo::osa
