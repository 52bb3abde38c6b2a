#include "client/StopRequest.h"

#include <utility>

namespace korlo::settings::client
{

void StopRequest::Make()
{
    _isMade = true;
    _made.Release();
    Break(LastWords);
}

void StopRequest::Pause(unsigned int durationMs)
{
    if (!_isMade)
    {
        _made.TryLock(durationMs);
    }
}

void StopRequest::SetBreaker(Breaker breaker)
{
    const osa::MutexAutoLock lock(&_mutex);
    _breaker = std::move(breaker);
}

void StopRequest::Break(Urgency urgency)
{
    const osa::MutexAutoLock lock(&_mutex);
    if (_breaker)
    {
        _breaker(urgency);
    }
}

}  // namespace korlo::settings::client
