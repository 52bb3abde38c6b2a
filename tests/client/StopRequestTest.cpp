#include "client/StopRequest.h"

#include <chrono>
#include <future>
#include <vector>

#include <gmock/gmock.h>

namespace korlo::settings::client
{
namespace
{

using namespace std::chrono_literals;
using testing::ElementsAre;

constexpr unsigned int LongMs = 60000;

TEST(StopRequestTest, MakingItSetsTheFlagAndEndsThePauseUnderWayAndAllLaterOnes)
{
    StopRequest request;
    EXPECT_FALSE(request);
    auto paused = std::async(std::launch::async, [&] {
        request.Pause(LongMs);
        request.Pause(LongMs);
    });
    EXPECT_EQ(paused.wait_for(5ms), std::future_status::timeout);
    request.Make();
    EXPECT_TRUE(request);
    EXPECT_EQ(paused.wait_for(30s), std::future_status::ready);
}

TEST(StopRequestTest, APauseEndsByItself)
{
    StopRequest request;
    const auto start = std::chrono::steady_clock::now();
    request.Pause(10);
    EXPECT_GE(std::chrono::steady_clock::now() - start, 10ms);
}

TEST(StopRequestTest, AsksTheTransportForLastWordsAndThenBreaksIt)
{
    StopRequest request;
    std::vector<StopRequest::Urgency> asked;
    request.SetBreaker([&asked](StopRequest::Urgency urgency) { asked.push_back(urgency); });
    request.Make();
    request.Break();
    request.SetBreaker({});
    request.Break();
    EXPECT_THAT(asked, ElementsAre(StopRequest::LastWords, StopRequest::AtOnce));
}

TEST(StopRequestTest, TellsWhetherTheThreadHasEnded)
{
    StopRequest request;
    EXPECT_FALSE(request.AwaitEnd(1));
    request.SayEnded();
    EXPECT_TRUE(request.AwaitEnd(LongMs));
}

}  // namespace
}  // namespace korlo::settings::client
