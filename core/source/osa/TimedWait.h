#pragma once
// Waiting with a time-out, as the locks of this library share it.

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>

#include "korlo/osa/Mutex.h"

namespace korlo::osa
{

/// Waits until `isMet()` holds and returns true, or returns false when `timeoutMs` of the monotonic clock are up.
template <typename Condition>
bool WaitFor(std::condition_variable& changed, std::unique_lock<std::mutex>& lock, unsigned int timeoutMs,
             Condition isMet)
{
    if (timeoutMs == 0)
    {
        return isMet();
    }
    if (timeoutMs == Infinite)
    {
        changed.wait(lock, isMet);
        return true;
    }
    return changed.wait_for(lock, std::chrono::milliseconds(timeoutMs), isMet);
}

/// The label of a lock whose name may be null.
inline std::string LockName(const char* name)
{
    return name == nullptr ? "unnamed" : name;
}

/// @param kind what could not be taken, such as "mutex".
[[noreturn]] void ThrowLockTimeout(const char* kind, const std::string& name, unsigned int timeoutMs);

}  // namespace korlo::osa
