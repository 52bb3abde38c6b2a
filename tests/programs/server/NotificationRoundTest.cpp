#include "NotificationRound.h"

#include <array>
#include <chrono>
#include <deque>
#include <initializer_list>
#include <memory>

#include <gtest/gtest.h>

#include "OutgoingQueue.h"
#include "support/TcpPair.h"

namespace korlo::daemon
{
namespace
{

using namespace std::chrono_literals;

constexpr std::size_t MaxPendingBytes = 1000;
constexpr unsigned int LimitMs = 30'000;

/// A round of a thread that carries out changes, and the queue of a subscriber that it tells of them.
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

    void Notify() { EXPECT_TRUE(_pQueue->Send("change", 6)); }

    bool HasSent() const { return _pQueue->GetPendingBytes() == 0; }

    TcpPair _pair;

private:
    static std::deque<std::chrono::milliseconds>& TimesToShow()
    {
        static std::deque<std::chrono::milliseconds> times;
        return times;
    }

    std::shared_ptr<OutgoingQueue> _pQueue = std::make_shared<OutgoingQueue>(*_pair.pServer, MaxPendingBytes);
};

TEST_F(NotificationRoundTest, GathersWhileRequestsAreQuick)
{
    ClockShows({0ms, 1ms, 2ms});
    NotificationRound round(&LookAtClock);
    Notify();
    round.OnRequest();
    Notify();
    round.OnRequest();
    EXPECT_FALSE(HasSent());
}

TEST_F(NotificationRoundTest, SendsAfterASlowRequest)
{
    ClockShows({0ms, 2ms, 2ms});
    NotificationRound round(&LookAtClock);
    Notify();
    round.OnRequest();
    EXPECT_TRUE(HasSent());
}

TEST_F(NotificationRoundTest, WhatTheSendingTookDoesNotCountAsTheNextRequests)
{
    ClockShows({0ms, 2ms, 7ms, 8ms});
    NotificationRound round(&LookAtClock);
    Notify();
    round.OnRequest();  // sends, from 2 ms to 7 ms
    ASSERT_TRUE(HasSent());
    Notify();
    round.OnRequest();
    EXPECT_FALSE(HasSent());
}

TEST_F(NotificationRoundTest, SendsWhenItEnds)
{
    ClockShows({0ms});
    {
        const NotificationRound round(&LookAtClock);
        Notify();
        EXPECT_FALSE(HasSent());
    }
    EXPECT_TRUE(HasSent());
    EXPECT_EQ(NotificationRound::Current(), nullptr);
    std::array<char, 6> received{};
    EXPECT_EQ(_pair.client.ReadSome(received.data(), received.size(), LimitMs).bytes, received.size());
}

}  // namespace
}  // namespace korlo::daemon
