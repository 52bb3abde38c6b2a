#include "Worker.h"

#include <exception>
#include <utility>

#include "korlo/core/Logger.h"

namespace korlo::settings::mqtt
{
namespace
{

constexpr unsigned int StackBytes = 128 * 1024;  // looking up a host's name takes most of it
constexpr signed char Priority = 0;

}  // namespace

Worker::Worker(const char* name, const WakeUp& wakeUp)
    : _wakeUp(wakeUp),
      _started("Worker", 1, 0),
      _thread(name, this, StackBytes, Priority)
{
    _thread.Run();
}

Worker::~Worker()
{
    RequestEnd();
    _thread.Join();
}

void Worker::RequestEnd()
{
    {
        const osa::MutexAutoLock lock(&_mutex);
        _isStopped = true;
        if (_work)
        {
            return;  // the thread has it, or is about to: it looks before it waits again
        }
    }
    _started.Release();
}

void Worker::Start(std::function<void()> work, std::function<void()> done)
{
    _done = std::move(done);
    {
        const osa::MutexAutoLock lock(&_mutex);
        _work = std::move(work);
    }
    _started.Release();
}

void Worker::Collect()
{
    if (!TakeFinished())
    {
        return;
    }
    const std::function<void()> done = std::exchange(_done, nullptr);
    done();
}

bool Worker::TakeFinished()
{
    const osa::MutexAutoLock lock(&_mutex);
    return std::exchange(_isFinished, false);
}

void Worker::Run()
{
    for (;;)
    {
        _started.Lock(osa::Infinite);
        std::function<void()> work;
        {
            const osa::MutexAutoLock lock(&_mutex);
            work = _work;
        }
        if (work)
        {
            try
            {
                work();
            }
            catch (const std::exception& exception)
            {
                core::Logger::GetLogger("MqttBridge")->Error("A piece of work failed: %s", exception.what());
            }
        }
        work = nullptr;
        const osa::MutexAutoLock lock(&_mutex);
        _work = nullptr;
        if (_isStopped)
        {
            return;
        }
        _isFinished = true;
        _wakeUp.Raise();
    }
}

}  // namespace korlo::settings::mqtt
