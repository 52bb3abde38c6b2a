#include "NotificationRound.h"

namespace korlo::daemon
{
namespace
{

constexpr std::chrono::milliseconds LongestRound{5};

}  // namespace

bool GatheredQueues::Collect(OutgoingQueue& queue)
{
    const PlainLock lock(_mutex);
    if (_slowRequests > 0)
    {
        return false;
    }
    _queues.push_back(queue.shared_from_this());
    return true;
}

void GatheredQueues::Send()
{
    std::vector<std::shared_ptr<OutgoingQueue>> queues;
    {
        const PlainLock lock(_mutex);
        queues.swap(_queues);
    }
    for (const std::shared_ptr<OutgoingQueue>& pQueue : queues)
    {
        pQueue->SendGathered();
    }
}

void GatheredQueues::BeginSlowRequest()
{
    {
        const PlainLock lock(_mutex);
        ++_slowRequests;
    }
    Send();
}

void GatheredQueues::EndSlowRequest()
{
    const PlainLock lock(_mutex);
    --_slowRequests;
}

NotificationRound::NotificationRound(GatheredQueues& gathered, ReadClock readClock)
    : _gathered(gathered),
      _readClock(readClock)
{
}

NotificationRound::~NotificationRound()
{
    EndSlowRequest();
    Send();
}

void NotificationRound::EndSlowRequest()
{
    if (_isSlow)
    {
        _isSlow = false;
        _gathered.EndSlowRequest();
    }
}

void NotificationRound::BeforeRequest()
{
    EndSlowRequest();
    if (_begin && _readClock() - *_begin > LongestRound)
    {
        Send();
    }
}

void NotificationRound::BeforeQuickChange()
{
    if (!_begin)
    {
        _begin = _readClock();
    }
}

void NotificationRound::BeforeSlowRequest()
{
    _begin.reset();
    _isSlow = true;
    _gathered.BeginSlowRequest();
}

void NotificationRound::Send()
{
    if (_begin)
    {
        _begin.reset();
        _gathered.Send();
    }
}

}  // namespace korlo::daemon
