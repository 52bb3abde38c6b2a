#pragma once
// How a client's thread is told to end, whatever it is doing.

#include <atomic>
#include <functional>

#include "korlo/osa/Mutex.h"
#include "korlo/osa/Semaphore.h"

namespace korlo::settings::client
{

/// The one way to stop: the client owns it and lends it to its connection. It is a flag that the thread looks at
/// between its steps, a pause that the request ends, and a hold on the transport under the streams, for a thread that
/// waits inside a read or a write.
///
/// Thread safety: all methods, from any thread; but one thread alone makes the request and awaits its end, and one
/// alone pauses and ends. Nothing of the client or the connection is called with the mutex held but the breaker, which
/// takes no lock of theirs.
class StopRequest
{
public:
    /// What a breaker is asked to do.
    enum Urgency
    {
        LastWords,  ///< Let no write that begins from now on take longer than a second.
        AtOnce      ///< End the streams: whoever reads or writes meets the end.
    };

    using Breaker = std::function<void(Urgency)>;

    /// True once the request was made.
    operator bool() const { return _isMade; }  // NOLINT(google-explicit-constructor): it is the flag

    /// Sets the flag, ends the pause, and asks the transport for last words. To be made once.
    void Make() KORLO_EXCLUDES(_mutex);

    /// Waits that long, or until the request is made.
    void Pause(unsigned int durationMs);

    /// @param breaker how the transport that is used from now on is broken; empty while there is none.
    void SetBreaker(Breaker breaker) KORLO_EXCLUDES(_mutex);

    /// Breaks the transport, if there is one.
    void Break(Urgency urgency = AtOnce) KORLO_EXCLUDES(_mutex);

    /// The thread's last word.
    void SayEnded() { _ended.Release(); }

    /// True once the thread has ended; false when the time is up.
    bool AwaitEnd(unsigned int timeoutMs) { return _ended.TryLock(timeoutMs); }

private:
    std::atomic<bool> _isMade = false;
    osa::Semaphore _made{"stopMade", 1, 0};
    osa::Semaphore _ended{"stopEnded", 1, 0};
    osa::Mutex _mutex{"stopBreaker"};
    Breaker _breaker KORLO_GUARDED_BY(_mutex);
};

}  // namespace korlo::settings::client
