#pragma once
// Threads with a chosen stack, and the body that they run.

#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <string>
#include <thread>

namespace korlo::osa
{

/// The body of a thread.
///
/// Thread safety: up to the class that derives from it; Run is called on the new thread.
class Runnable
{
public:
    Runnable() = default;
    virtual ~Runnable();

    /// What the thread does. A standard exception that leaves it is logged at error level and ends the thread, not the
    /// process; anything else that is thrown ends the process.
    virtual void Run();

    /// A request to end, for bodies that offer one. Nothing calls it by itself.
    virtual void Stop();
};

/// One thread of the process. It does not start before Run is called.
///
///     Thread thread("KorloSettings", this, 32768, 0);
///     thread.Run();
///
/// Thread safety: all methods but the destructor, from any thread.
class Thread
{
public:
    /// What concerns the thread that calls it.
    class CurrentThread
    {
    public:
        CurrentThread() = delete;

        /// Returns after at least `durationMs` of the monotonic clock, signals or not; never for Infinite.
        static void Sleep(unsigned int durationMs);
    };

    /// @param name shown by the system's tools (its first 15 bytes) and in error texts; it is copied and may be null.
    /// @param pBody borrowed, not null; must outlive the thread that Run starts.
    /// @param stackBytes the stack that the body may use; what the platform and the sanitizers need comes on top.
    /// @param priority 0 is the scheduler's default. Each step above makes the thread one step less nice and each step
    ///        below one step nicer; where the process may not do that, a warning is logged and the default stays.
    Thread(const char* name, Runnable* pBody, unsigned int stackBytes, signed char priority);
    Thread(const Thread&) = delete;
    Thread& operator=(const Thread&) = delete;

    /// Joins a thread that was not joined, which waits for its body to return: ask the body to end first. A thread that
    /// destroys its own Thread object is detached and ends by itself.
    ~Thread();

    /// Starts the thread, which calls the body's Run. Throws Exception, naming the thread and the system's reason, when
    /// it cannot be started, or when it was started and not joined yet. After Join it may be started again.
    void Run();

    /// Waits until the body has returned. At once when the thread was not started or was joined before. Throws
    /// Exception when a thread would wait for itself.
    void Join();

private:
    const std::string _name;
    Runnable* const _pBody;
    const std::size_t _stackBytes;
    const signed char _priority;

    std::mutex _mutex;  // guards the rest
    std::condition_variable _joined;
    enum
    {
        NotStarted,  // or joined
        Started,     // until some thread joins it, even if its body has returned
        Joining      // one thread waits for the body's end, any others wait for `_joined`
    } _state = NotStarted;
    std::thread::native_handle_type _handle{};  // means nothing before the start
};

}  // namespace korlo::osa
