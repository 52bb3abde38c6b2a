#pragma once
// A counter that threads take from and give to.

#include <memory>
#include <mutex>
#include <string>

namespace korlo::osa
{

/// A counting semaphore. One thread may take what another gives back, so it serves as a queue's count of items and as
/// a lock that changes hands. Time-outs run on the monotonic clock.
///
///     Semaphore sendMutex("sendMutex", 1, 0);  // at most one, and that one is taken
///
/// Whoever is woken has its unit already and needs nothing else of the semaphore, not even a lock: on a device with one
/// core, a wait for a lock that the other side still holds would cost two more changes of thread.
///
/// Thread safety: all methods, from any thread. Whoever has taken a unit may destroy the semaphore at once, though
/// the thread that gave it may not have returned: the destructor waits for that.
class Semaphore
{
public:
    /// @param name labels the semaphore in error texts; it is copied and may be null.
    /// @param maximum the most that it may hold.
    /// @param initial what it holds at the start. Throws Exception when that is more than `maximum`.
    Semaphore(const char* name, unsigned short maximum, unsigned short initial);
    Semaphore(const Semaphore&) = delete;
    Semaphore& operator=(const Semaphore&) = delete;
    ~Semaphore();

    /// Takes one and returns true, or throws LockException (Timeout, with a text that names the semaphore) when
    /// `timeoutMs` is up.
    bool Lock(unsigned int timeoutMs);

    /// Takes one and returns true, or returns false when `timeoutMs` is up.
    bool TryLock(unsigned int timeoutMs);

    /// Gives one back. Throws Exception, and changes nothing, when the semaphore holds its maximum already.
    void Release();

private:
    struct Units;  // the system's semaphore

    const std::string _name;
    const unsigned short _maximum;

    std::mutex _releaseMutex;  // held to compare with the maximum and give
    const std::unique_ptr<Units> _pUnits;
};

}  // namespace korlo::osa
