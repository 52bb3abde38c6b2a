#include "korlo/osa/Semaphore.h"

#include <cerrno>
#include <ctime>

#include <semaphore.h>

#include "korlo/osa/Exception.h"
#include "osa/TimedWait.h"

namespace korlo::osa
{
namespace
{

constexpr unsigned int MillisecondsPerSecond = 1000;
constexpr long NanosecondsPerMillisecond = 1000000;
constexpr long NanosecondsPerSecond = 1000000000;
constexpr int SharedAmongThreads = 0;

#ifdef __SANITIZE_THREAD__
constexpr clockid_t Clock = CLOCK_REALTIME;  // it sees no wait by the other clock

int WaitUntil(sem_t& units, const timespec& end)
{
    return ::sem_timedwait(&units, &end);
}
#else
constexpr clockid_t Clock = CLOCK_MONOTONIC;

int WaitUntil(sem_t& units, const timespec& end)
{
    return ::sem_clockwait(&units, Clock, &end);
}
#endif

timespec After(unsigned int timeoutMs)
{
    timespec end{};
    ::clock_gettime(Clock, &end);
    end.tv_sec += static_cast<time_t>(timeoutMs / MillisecondsPerSecond);
    end.tv_nsec += static_cast<long>(timeoutMs % MillisecondsPerSecond) * NanosecondsPerMillisecond;
    if (end.tv_nsec >= NanosecondsPerSecond)
    {
        end.tv_nsec -= NanosecondsPerSecond;
        ++end.tv_sec;
    }
    return end;
}

/// Repeats a wait that a signal cut short; false when it ended without a unit.
template <typename Wait>
bool TakeBy(const Wait& wait)
{
    int result = 0;
    do
    {
        result = wait();
    } while (result != 0 && errno == EINTR);
    return result == 0;
}

}  // namespace

struct Semaphore::Units
{
    // Any unsigned short is a value that it can have.
    explicit Units(unsigned short initial) { ::sem_init(&handle, SharedAmongThreads, initial); }
    Units(const Units&) = delete;
    Units& operator=(const Units&) = delete;
    ~Units() { ::sem_destroy(&handle); }

    sem_t handle{};
};

Semaphore::Semaphore(const char* name, unsigned short maximum, unsigned short initial)
    : _name(LockName(name)),
      _maximum(maximum),
      _pUnits(std::make_unique<Units>(initial))
{
    if (initial > maximum)
    {
        throw Exception("Semaphore '%s' cannot start at %d, its maximum is %d", _name.c_str(), initial, maximum);
    }
}

Semaphore::~Semaphore()
{
    const std::lock_guard untilGiven(_releaseMutex);
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
    sem_t& units = _pUnits->handle;
    if (::sem_trywait(&units) == 0)
    {
        return true;
    }
    if (timeoutMs == 0)
    {
        return false;
    }
    if (timeoutMs == Infinite)
    {
        return TakeBy([&units] { return ::sem_wait(&units); });
    }
    const timespec end = After(timeoutMs);
    return TakeBy([&units, &end] { return WaitUntil(units, end); });
}

void Semaphore::Release()
{
    const std::lock_guard lock(_releaseMutex);
    sem_t& units = _pUnits->handle;
    int count = 0;
    ::sem_getvalue(&units, &count);
    if (count >= _maximum)
    {
        throw Exception("Semaphore '%s' released beyond its maximum of %d", _name.c_str(), _maximum);
    }
    ::sem_post(&units);
}

}  // namespace korlo::osa
