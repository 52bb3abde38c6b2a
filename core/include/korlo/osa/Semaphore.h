#pragma once
// A counter that threads take from and give to.

#include <condition_variable>
#include <mutex>
#include <string>

namespace korlo::osa
{

/// A counting semaphore. One thread may take what another gives back, so it serves as a queue's count of items and as
/// a lock that changes hands. Time-outs run on the monotonic clock.
///
///     Semaphore sendMutex("sendMutex", 1, 0);  // at most one, and that one is taken
///
/// Thread safety: all methods, from any thread.
class Semaphore
{
public:
    /// @param name labels the semaphore in error texts; it is copied and may be null.
    /// @param maximum the most that it may hold.
    /// @param initial what it holds at the start. Throws Exception when that is more than `maximum`.
    Semaphore(const char* name, unsigned short maximum, unsigned short initial);
    Semaphore(const Semaphore&) = delete;
    Semaphore& operator=(const Semaphore&) = delete;

    /// Takes one and returns true, or throws LockException (Timeout, with a text that names the semaphore) when
    /// `timeoutMs` is up.
    bool Lock(unsigned int timeoutMs);

    /// Takes one and returns true, or returns false when `timeoutMs` is up.
    bool TryLock(unsigned int timeoutMs);

    /// Gives one back. Throws Exception, and changes nothing, when the semaphore holds its maximum already.
    void Release();

private:
    const std::string _name;
    const unsigned short _maximum;

    std::mutex _mutex;
    std::condition_variable _given;
    unsigned short _count;  // guarded by _mutex
};

}  // namespace korlo::osa
