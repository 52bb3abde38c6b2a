#include "korlo/core/Stopwatch.h"

#include <gtest/gtest.h>

namespace korlo::core
{

TEST(StopwatchTest, ReadsSecondsOfTheMonotonicClock)
{
    using Clock = std::chrono::steady_clock;
    using Seconds = std::chrono::duration<float>;

    const Clock::time_point before = Clock::now();
    const Stopwatch stopwatch(true);
    const Clock::time_point started = Clock::now();
    while (Clock::now() - started < std::chrono::milliseconds(20))
    {
    }
    const float read = stopwatch.Read();
    const float most = Seconds(Clock::now() - before).count();

    EXPECT_GE(read, 0.02f);
    EXPECT_LE(read, most);
}

TEST(StopwatchTest, GoesOnAfterItWasRead)
{
    const Stopwatch stopwatch(true);
    const float first = stopwatch.Read();
    while (stopwatch.Read() == first)
    {
    }
    EXPECT_GT(stopwatch.Read(), first);
}

TEST(StopwatchTest, ReadsZeroWhileItIsNotStarted)
{
    const Stopwatch stopwatch(false);
    EXPECT_EQ(stopwatch.Read(), 0.0f);
}

}  // namespace korlo::core
