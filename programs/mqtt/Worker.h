#pragma once
// A thread for what may take long.

#include <functional>

#include "WakeUp.h"
#include "korlo/osa/Mutex.h"
#include "korlo/osa/Semaphore.h"
#include "korlo/osa/Thread.h"
#include "korlo/osa/ThreadAnnotations.h"

namespace korlo::settings::mqtt
{

/// Does one piece of work at a time, so that its owner's thread never waits for the settings server.
///
///     worker.Start([pResult] { pResult->Fill(); }, [this, pResult] { Use(*pResult); });
///     ...                // `wakeUp` is raised
///     worker.Collect();  // Use, on this thread
///
/// Thread safety: none of its own; the owner guards it. The work itself runs on the worker's thread.
class Worker : private osa::Runnable
{
public:
    /// @param wakeUp borrowed; raised when work is finished.
    Worker(const char* name, const WakeUp& wakeUp);
    Worker(const Worker&) = delete;
    Worker& operator=(const Worker&) = delete;

    /// Waits for the work that is under way; of that, `done` is not called any more.
    ~Worker() override;

    /// Only when it is not busy.
    /// @param work runs on the worker's thread, and may share with `done` what it likes. What it throws is logged.
    /// @param done runs in Collect, on the owner's thread.
    void Start(std::function<void()> work, std::function<void()> done);

    /// From Start until Collect has called `done`.
    bool IsBusy() const { return _done != nullptr; }

    /// Calls what was to be done after the work, if the work is finished. It may start other work.
    void Collect();

private:
    void Run() override;
    void RequestEnd() KORLO_EXCLUDES(_mutex);
    bool TakeFinished() KORLO_EXCLUDES(_mutex);

    const WakeUp& _wakeUp;
    std::function<void()> _done;  // the owner's

    osa::Mutex _mutex;
    std::function<void()> _work KORLO_GUARDED_BY(_mutex);
    bool _isFinished KORLO_GUARDED_BY(_mutex) = false;
    bool _isStopped KORLO_GUARDED_BY(_mutex) = false;

    osa::Semaphore _started;
    osa::Thread _thread;
};

}  // namespace korlo::settings::mqtt
