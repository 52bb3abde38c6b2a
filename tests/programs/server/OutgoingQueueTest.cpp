#include "OutgoingQueue.h"

#include <future>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include "korlo/osa/Exception.h"
#include "support/TcpPair.h"

namespace korlo::daemon
{
namespace
{

constexpr unsigned int LimitMs = 30'000;
constexpr std::size_t Much = 32 * 1024 * 1024;  // more than the system keeps for a connection

/// Collects nothing, or counts what it collects.
///
/// Thread safety: as a queue's lock guards it.
class TestCollector : public IQueueCollector
{
public:
    bool Collect(OutgoingQueue&) override
    {
        collected += collects ? 1 : 0;
        return collects;
    }

    bool collects = false;
    int collected = 0;
};

class OutgoingQueueTest : public testing::Test
{
protected:
    OutgoingQueueTest() { _queue.Adopt(); }

    bool Send(const std::string& bytes) { return _queue.Send(bytes.data(), bytes.size()); }

    bool SendFromAnotherThread(const std::string& bytes)
    {
        return std::async(std::launch::async, [&] { return Send(bytes); }).get();
    }

    /// Reads at the other end.
    std::string Read(std::size_t size)
    {
        std::string read(size, '\0');
        std::size_t length = 0;
        osa::TcpSocket::IoResult part{osa::TcpSocket::Done, 0, 0};
        while (length < size && part.status == osa::TcpSocket::Done)
        {
            part = _pair.client.ReadSome(&read[length], size - length, LimitMs);
            length += part.bytes;
        }
        read.resize(length);
        return read;
    }

    /// Reads at the other end while this end drains.
    std::string DrainAndRead(std::size_t size)
    {
        auto reading = std::async(std::launch::async, [&] { return Read(size); });
        while (_queue.GetRefusedBytes() > 0 && _pair.pServer->Wait(false, true, LimitMs) != 0)
        {
            _queue.Drain();
        }
        return reading.get();
    }

    /// Makes the socket refuse more, behind the queue's back. Returns how much that took.
    std::size_t FillSocket() const
    {
        const std::string much(Much, 'm');
        constexpr unsigned int longMs = 100;  // the system still moves bytes to the other end
        std::size_t filled = 0;
        for (const std::size_t size : {much.size(), std::size_t{1}})
        {
            osa::TcpSocket::IoResult part{osa::TcpSocket::Done, 0, 0};
            while (part.status == osa::TcpSocket::Done)
            {
                part = _pair.pServer->WriteSome(much.data(), size, size == 1 ? 0 : longMs);
                filled += part.bytes;
            }
        }
        return filled;
    }

    TcpPair _pair;
    TestCollector _collector;
    OutgoingQueue _queue{*_pair.pServer, 1000, _collector};
};

TEST_F(OutgoingQueueTest, SendsAtOnceWhatTheSocketTakes)
{
    EXPECT_TRUE(Send("hello"));
    EXPECT_EQ(_queue.GetRefusedBytes(), 0u);
    EXPECT_EQ(DrainAndRead(5), "hello");
}

TEST_F(OutgoingQueueTest, KeepsTheRestInOrderHoweverMuchItsOwnThreadSends)
{
    const std::string much(Much, 'm');
    EXPECT_TRUE(Send(much));
    EXPECT_GT(_queue.GetRefusedBytes(), 1000u);
    EXPECT_TRUE(Send("behind it"));
    EXPECT_TRUE(DrainAndRead(Much + 9) == much + "behind it");
    EXPECT_EQ(_queue.GetRefusedBytes(), 0u);
}

TEST_F(OutgoingQueueTest, BytesOfItsOwnThreadDoNotCountAgainstANotification)
{
    const std::string much(Much, 'm');
    EXPECT_TRUE(Send(much));
    EXPECT_TRUE(SendFromAnotherThread(std::string(1000, 'n')));
    EXPECT_TRUE(Send("own"));
    EXPECT_FALSE(_queue.IsBroken());
    EXPECT_TRUE(DrainAndRead(Much + 1003) == much + std::string(1000, 'n') + "own");
    EXPECT_TRUE(SendFromAnotherThread("again"));  // what was drained does not count any more
}

TEST_F(OutgoingQueueTest, NotificationsBeyondTheLimitBreakTheConnection)
{
    EXPECT_TRUE(Send(std::string(Much, 'm')));
    EXPECT_TRUE(SendFromAnotherThread(std::string(600, 'n')));
    EXPECT_FALSE(SendFromAnotherThread(std::string(401, 'n')));
    EXPECT_TRUE(_queue.IsBroken());
    EXPECT_EQ(_queue.GetReason(), "it does not read its notifications: 1001 bytes wait, 1000 may");
    EXPECT_EQ(_queue.GetRefusedBytes(), 0u);
    EXPECT_FALSE(Send("more"));
}

TEST_F(OutgoingQueueTest, GatheredNotificationsLeaveTogetherAndDoNotCount)
{
    _collector.collects = true;
    std::string all;
    for (int i = 0; i < 50; ++i)
    {
        const std::string notification(900, static_cast<char>('A' + i));
        EXPECT_TRUE(SendFromAnotherThread(notification));
        all += notification;
    }
    char byte = 0;
    EXPECT_EQ(_pair.client.ReadSome(&byte, 1, 0).status, osa::TcpSocket::TimedOut);
    EXPECT_EQ(_queue.GetRefusedBytes(), 0u);
    EXPECT_EQ(_collector.collected, 1);
    _queue.SendGathered();
    EXPECT_TRUE(DrainAndRead(all.size()) == all);
    EXPECT_TRUE(SendFromAnotherThread("more"));
    EXPECT_EQ(_collector.collected, 2);
}

TEST_F(OutgoingQueueTest, WhatIsMoreThanOneCallMovesIsNotGathered)
{
    _collector.collects = true;
    const std::string first(40'000, 'a');
    const std::string second(40'000, 'b');
    EXPECT_TRUE(SendFromAnotherThread(first));
    EXPECT_TRUE(SendFromAnotherThread(second));
    EXPECT_TRUE(DrainAndRead(80'000) == first + second);
}

TEST_F(OutgoingQueueTest, ANotificationLargerThanTheLimitReachesAClientThatReads)
{
    for (const bool collects : {false, true})
    {
        _collector.collects = collects;
        const std::string much(Much, 'n');
        EXPECT_TRUE(SendFromAnotherThread(much));
        EXPECT_GT(_queue.GetRefusedBytes(), 1000u);
        EXPECT_TRUE(SendFromAnotherThread("small, behind it"));
        EXPECT_TRUE(DrainAndRead(Much + 16) == much + "small, behind it");
    }
}

TEST_F(OutgoingQueueTest, TwoNotificationsLargerThanTheLimitAreTooManyForAClientThatDoesNotRead)
{
    EXPECT_TRUE(SendFromAnotherThread(std::string(Much, 'n')));
    EXPECT_FALSE(SendFromAnotherThread(std::string(1001, 'n')));
    EXPECT_THAT(_queue.GetReason(), testing::HasSubstr("it does not read its notifications"));
}

TEST_F(OutgoingQueueTest, TheSocketIsOfferedMoreBeforeAClientThatReadsIsGivenUp)
{
    const std::size_t before = FillSocket();
    EXPECT_TRUE(SendFromAnotherThread(std::string(1000, 'n')));
    EXPECT_EQ(_queue.GetRefusedBytes(), 1000u);
    EXPECT_EQ(Read(before).size(), before);
    ASSERT_EQ(_pair.pServer->Wait(false, true, LimitMs) & osa::TcpSocket::Writable, osa::TcpSocket::Writable);
    EXPECT_TRUE(SendFromAnotherThread("more"));  // the own thread has not drained the queue yet
    EXPECT_EQ(Read(1004), std::string(1000, 'n') + "more");
}

TEST_F(OutgoingQueueTest, ANotificationThatHasToWaitWakesItsOwnThread)
{
    OutgoingQueue queue(*_pair.pServer, Much, _collector);
    queue.Adopt();
    auto waiting = std::async(std::launch::async, [this] { return _pair.pServer->Wait(true, false, LimitMs); });
    const std::string notification(Much, 'n');
    EXPECT_TRUE(
        std::async(std::launch::async, [&] { return queue.Send(notification.data(), notification.size()); }).get());
    EXPECT_GT(queue.GetRefusedBytes(), 0u);
    EXPECT_EQ(waiting.get(), osa::TcpSocket::Woken);
}

/// The undefined-behaviour sanitizer takes a descriptor to look at the first exception of a type.
std::string TextOfAnException()
{
    try
    {
        throw osa::Exception("seen before");
    }
    catch (const std::exception& exception)
    {
        return exception.what();
    }
}

TEST_F(OutgoingQueueTest, WhereNoDescriptorIsLeftTheConnectionAloneIsBroken)
{
    ASSERT_EQ(TextOfAnException(), "seen before");
    _collector.collects = true;
    OutgoingQueue queue(*_pair.pServer, 64 * 1024 * 1024, _collector);
    rlimit before{};
    getrlimit(RLIMIT_NOFILE, &before);
    std::async(std::launch::async, [&] {
        EXPECT_TRUE(queue.Send("gathered", 8));
        FillSocket();
        const rlimit none{3, before.rlim_max};  // which are open already
        setrlimit(RLIMIT_NOFILE, &none);
        queue.SendGathered();  // which has to wake the connection's own thread
        setrlimit(RLIMIT_NOFILE, &before);
    }).get();
    EXPECT_TRUE(queue.IsBroken());
    EXPECT_THAT(queue.GetReason(), testing::HasSubstr("Too many open files"));
}

TEST_F(OutgoingQueueTest, TheFirstReasonCounts)
{
    _queue.Break("first");
    _queue.Break("second");
    EXPECT_EQ(_queue.GetReason(), "first");
}

}  // namespace
}  // namespace korlo::daemon
