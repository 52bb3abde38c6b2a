#include "NotificationRound.h"

#include <array>
#include <chrono>
#include <deque>
#include <initializer_list>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "OutgoingQueue.h"
#include "support/TcpPair.h"

namespace korlo::daemon
{
namespace
{

using namespace std::chrono_literals;

constexpr std::size_t MaxBacklog = 1000;
constexpr unsigned int LimitMs = 30'000;

/// The queue of a subscriber, and the rounds of connections that tell it of changes.
class NotificationRoundTest : public testing::Test
{
protected:
    /// What the clock is to show, look after look.
    static void ClockShows(std::initializer_list<std::chrono::milliseconds> times) { TimesToShow() = times; }

    static NotificationRound::Clock::time_point LookAtClock()
    {
        const NotificationRound::Clock::time_point now(TimesToShow().front());
        TimesToShow().pop_front();
        return now;
    }

    /// A notification of the round's connection.
    void Change(NotificationRound& round)
    {
        round.BeforeRequest();
        round.BeforeQuickChange();
        Notify();
    }

    void Notify() { EXPECT_TRUE(_pQueue->Send("change", 6)); }

    /// How many notifications have come since the last call.
    std::size_t CountReceived()
    {
        std::array<char, 600> received{};
        return _pair.client.ReadSome(received.data(), received.size(), 0).bytes / 6;
    }

    TcpPair _pair;
    GatheredQueues _gathered;

private:
    static std::deque<std::chrono::milliseconds>& TimesToShow()
    {
        static std::deque<std::chrono::milliseconds> times;
        return times;
    }

    std::shared_ptr<OutgoingQueue> _pQueue = std::make_shared<OutgoingQueue>(*_pair.pServer, MaxBacklog, _gathered);
};

TEST_F(NotificationRoundTest, GathersOverQuickChanges)
{
    ClockShows({0ms, 1ms, 5ms});
    NotificationRound round(_gathered, &LookAtClock);
    Change(round);
    Change(round);
    Change(round);
    EXPECT_EQ(CountReceived(), 0u);
    round.Send();
    EXPECT_EQ(CountReceived(), 3u);
}

TEST_F(NotificationRoundTest, SendsWhenTheFirstHasWaitedForLong)
{
    ClockShows({0ms, 3ms, 6ms, 7ms, 8ms});
    NotificationRound round(_gathered, &LookAtClock);
    Change(round);
    Change(round);
    round.BeforeRequest();
    EXPECT_EQ(CountReceived(), 2u);
    Change(round);
    round.BeforeRequest();
    EXPECT_EQ(CountReceived(), 0u);
}

TEST_F(NotificationRoundTest, SendsWhenItEnds)
{
    {
        NotificationRound round(_gathered);
        Change(round);
        EXPECT_EQ(CountReceived(), 0u);
    }
    EXPECT_EQ(CountReceived(), 1u);
}

TEST_F(NotificationRoundTest, SendsWhatAnotherHasGatheredWithItsOwn)
{
    NotificationRound first(_gathered);
    NotificationRound second(_gathered);
    Change(first);
    Change(second);
    second.Send();
    EXPECT_EQ(CountReceived(), 2u);
}

TEST_F(NotificationRoundTest, OneThatHasChangedNothingSendsNothingOfOthers)
{
    NotificationRound first(_gathered);
    NotificationRound reader(_gathered);
    Change(first);
    reader.Send();
    EXPECT_EQ(CountReceived(), 0u);
}

TEST_F(NotificationRoundTest, NothingWaitsForASlowRequestOfItsOwnConnection)
{
    NotificationRound round(_gathered);
    Change(round);
    round.BeforeSlowRequest();
    EXPECT_EQ(CountReceived(), 1u);
    Notify();
    EXPECT_EQ(CountReceived(), 1u);
}

TEST_F(NotificationRoundTest, NothingWaitsForASlowRequestOfAnotherConnection)
{
    NotificationRound quick(_gathered);
    NotificationRound slow(_gathered);
    Change(quick);
    slow.BeforeSlowRequest();
    EXPECT_EQ(CountReceived(), 1u);
    Change(quick);
    EXPECT_EQ(CountReceived(), 1u);
}

TEST_F(NotificationRoundTest, GathersAgainAfterTheLastSlowRequest)
{
    NotificationRound quick(_gathered);
    NotificationRound slow(_gathered);
    slow.BeforeSlowRequest();
    {
        NotificationRound slower(_gathered);
        slower.BeforeSlowRequest();
        slow.BeforeRequest();
        Change(quick);
        EXPECT_EQ(CountReceived(), 1u);
    }
    Change(quick);
    EXPECT_EQ(CountReceived(), 0u);
}

TEST_F(NotificationRoundTest, AMessageOfTheSubscribersOwnTakesAlongWhatWasGathered)
{
    const auto pQueue = std::make_shared<OutgoingQueue>(*_pair.pServer, MaxBacklog, _gathered);
    EXPECT_TRUE(pQueue->Send("change", 6));
    EXPECT_EQ(CountReceived(), 0u);
    pQueue->Adopt();
    EXPECT_TRUE(pQueue->Send("answer", 6));
    std::string received(12, '\0');
    EXPECT_EQ(_pair.client.ReadSome(received.data(), received.size(), LimitMs).bytes, received.size());
    EXPECT_EQ(received, "changeanswer");
}

}  // namespace
}  // namespace korlo::daemon
