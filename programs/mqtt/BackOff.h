#pragma once
// How long to wait before the next attempt.

#include <algorithm>
#include <chrono>
#include <random>

namespace korlo::settings::mqtt
{

/// Each wait is twice as long as the one before, up to a limit; of that, a random part of at least a half is waited, so
/// that a thousand devices that lost one broker do not come back in one moment.
///
/// Thread safety: none of its own; the owner guards it.
class BackOff
{
public:
    using Duration = std::chrono::milliseconds;

    BackOff(Duration least, Duration most) : _least(least), _most(most), _next(least) {}

    void Reset() { _next = _least; }

    Duration Next()
    {
        const Duration longest = _next;
        _next = std::min(_most, _next * 2);
        return Duration(std::uniform_int_distribution<Duration::rep>(longest.count() / 2, longest.count())(_random));
    }

private:
    const Duration _least;
    const Duration _most;
    Duration _next;
    std::minstd_rand _random{std::random_device()()};
};

}  // namespace korlo::settings::mqtt
