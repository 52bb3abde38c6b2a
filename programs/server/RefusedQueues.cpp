#include "RefusedQueues.h"

#include <cerrno>
#include <exception>
#include <utility>

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include "korlo/osa/Exception.h"

namespace korlo::daemon
{

RefusedQueues::~RefusedQueues()
{
    int event = -1;
    {
        const PlainLock lock(_mutex);
        _isStopping = true;
        event = _event;
    }
    if (event >= 0)
    {
        eventfd_write(event, 1);
        _thread.Join();
        close(event);
    }
}

void RefusedQueues::Add(OutgoingQueue& queue, int descriptor)
{
    const PlainLock lock(_mutex);
    Start();
    _queues.push_back({queue.shared_from_this(), descriptor});
    eventfd_write(_event, 1);
}

void RefusedQueues::Start()
{
    if (_event < 0)
    {
        _event = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    }
    if (_event < 0)
    {
        throw osa::Exception("Failed to make an event for what has to wait: %s", osa::SystemReason(errno).c_str());
    }
    if (!_isRunning)
    {
        _thread.Run();
        _isRunning = true;
    }
}

void RefusedQueues::Run()
{
    std::vector<pollfd> waited;
    bool goesOn = true;
    while (goesOn)
    {
        try
        {
            goesOn = WaitForRoom(waited);
            DrainReady(waited);
        }
        catch (const std::exception& exception)
        {
            BreakAll(exception.what());  // no memory to wait for them
        }
    }
}

/// Returns false when the thread is to end.
bool RefusedQueues::WaitForRoom(std::vector<pollfd>& waited)
{
    if (!ListSockets(waited))
    {
        return false;
    }
    if (poll(waited.data(), static_cast<nfds_t>(waited.size()), -1) > 0 && waited.front().revents != 0)
    {
        eventfd_t count = 0;
        eventfd_read(waited.front().fd, &count);  // which sets it back to zero
    }
    return true;
}

/// The event, and behind it the socket of each queue in the order of the queues.
bool RefusedQueues::ListSockets(std::vector<pollfd>& waited)
{
    waited.clear();
    const PlainLock lock(_mutex);
    waited.reserve(_queues.size() + 1);
    waited.push_back({_event, POLLIN, 0});
    for (const Refused& refused : _queues)
    {
        waited.push_back({refused.descriptor, POLLOUT, 0});
    }
    return !_isStopping;
}

/// From the last to the first, so that those which are still to come keep their places when one is removed.
void RefusedQueues::DrainReady(const std::vector<pollfd>& waited)
{
    for (std::size_t index = waited.size() - 1; index > 0; --index)
    {
        if (waited[index].revents != 0 && !At(index - 1)->DrainAwaited())
        {
            Remove(index - 1);
        }
    }
}

std::shared_ptr<OutgoingQueue> RefusedQueues::At(std::size_t index)
{
    const PlainLock lock(_mutex);
    return _queues[index].pQueue;
}

void RefusedQueues::Remove(std::size_t index)
{
    const PlainLock lock(_mutex);
    std::swap(_queues[index], _queues.back());
    _queues.pop_back();
}

void RefusedQueues::BreakAll(const char* reason)
{
    std::vector<Refused> queues;
    {
        const PlainLock lock(_mutex);
        queues.swap(_queues);
    }
    for (const Refused& refused : queues)
    {
        refused.pQueue->Break(reason);
    }
}

}  // namespace korlo::daemon
