#include "NotificationRound.h"

#include "OutgoingQueue.h"

namespace korlo::daemon
{
namespace
{

// A request that takes longer than this (to reach the disk, say) is not followed by another one in a hurry.
constexpr std::chrono::milliseconds LongRequest{1};

thread_local NotificationRound* pCurrentRound = nullptr;

}  // namespace

NotificationRound::NotificationRound(ReadClock readClock) : _readClock(readClock), _requestBegan(readClock())
{
    pCurrentRound = this;
}

NotificationRound::~NotificationRound()
{
    Flush();
    pCurrentRound = nullptr;
}

NotificationRound* NotificationRound::Current()
{
    return pCurrentRound;
}

void NotificationRound::OnRequest()
{
    Clock::time_point now = _readClock();
    if (now - _requestBegan > LongRequest)
    {
        Flush();
        now = _readClock();  // what the sending took is not the next request's: it would be sent in a hurry as well
    }
    _requestBegan = now;
}

void NotificationRound::Flush()
{
    for (const std::shared_ptr<OutgoingQueue>& pQueue : _queues)
    {
        pQueue->SendGathered();
    }
    _queues.clear();
}

void NotificationRound::Add(std::shared_ptr<OutgoingQueue> pQueue)
{
    _queues.push_back(std::move(pQueue));
}

}  // namespace korlo::daemon
