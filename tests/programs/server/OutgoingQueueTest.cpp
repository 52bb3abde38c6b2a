#include "OutgoingQueue.h"

#include <future>
#include <memory>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include "NotificationRound.h"
#include "korlo/osa/Exception.h"
#include "support/TcpPair.h"

namespace korlo::daemon
{
namespace
{

constexpr unsigned int LimitMs = 30'000;
constexpr std::size_t Much = 32 * 1024 * 1024;  // more than the system keeps for a connection

class OutgoingQueueTest : public testing::Test
{
protected:
    OutgoingQueueTest() { _queue.Adopt(); }

    bool Send(const std::string& bytes) { return _queue.Send(bytes.data(), bytes.size()); }

    bool SendFromAnotherThread(const std::string& bytes)
    {
        return std::async(std::launch::async, [&] { return Send(bytes); }).get();
    }

    /// Reads at the other end while this end drains.
    std::string DrainAndRead(std::size_t size)
    {
        auto reading = std::async(std::launch::async, [&] {
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
        });
        while (_queue.GetPendingBytes() > 0 && _pair.pServer->Wait(false, true, LimitMs) != 0)
        {
            _queue.Drain();
        }
        return reading.get();
    }

    TcpPair _pair;
    OutgoingQueue _queue{*_pair.pServer, 1000};
};

TEST_F(OutgoingQueueTest, SendsAtOnceWhatTheSocketTakes)
{
    EXPECT_TRUE(Send("hello"));
    EXPECT_EQ(_queue.GetPendingBytes(), 0u);
    EXPECT_EQ(DrainAndRead(5), "hello");
}

TEST_F(OutgoingQueueTest, KeepsTheRestInOrderHoweverMuchItsOwnThreadSends)
{
    const std::string much(Much, 'm');
    EXPECT_TRUE(Send(much));
    EXPECT_GT(_queue.GetPendingBytes(), 1000u);
    EXPECT_TRUE(Send("behind it"));
    EXPECT_TRUE(DrainAndRead(Much + 9) == much + "behind it");
    EXPECT_EQ(_queue.GetPendingBytes(), 0u);
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
    EXPECT_EQ(_queue.GetPendingBytes(), 0u);
    EXPECT_FALSE(Send("more"));
}

TEST_F(OutgoingQueueTest, ANotificationThatHasToWaitWakesItsOwnThread)
{
    OutgoingQueue queue(*_pair.pServer, Much);
    queue.Adopt();
    auto waiting = std::async(std::launch::async, [this] { return _pair.pServer->Wait(true, false, LimitMs); });
    const std::string notification(Much, 'n');
    EXPECT_TRUE(
        std::async(std::launch::async, [&] { return queue.Send(notification.data(), notification.size()); }).get());
    EXPECT_GT(queue.GetPendingBytes(), 0u);
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
    const auto pQueue = std::make_shared<OutgoingQueue>(*_pair.pServer, 64 * 1024 * 1024);
    const std::string much(Much, 'm');
    rlimit before{};
    getrlimit(RLIMIT_NOFILE, &before);
    std::async(std::launch::async, [&] {
        NotificationRound round;
        EXPECT_TRUE(pQueue->Send("gathered", 8));
        constexpr unsigned int longMs = 100;  // the system still moves bytes to the other end
        for (const std::size_t size : {much.size(), std::size_t{1}})
        {
            while (_pair.pServer->WriteSome(much.data(), size, size == 1 ? 0 : longMs).status == osa::TcpSocket::Done)
            {
            }
        }
        const rlimit none{3, before.rlim_max};  // which are open already
        setrlimit(RLIMIT_NOFILE, &none);
        round.Flush();  // which has to wake the connection's own thread
        setrlimit(RLIMIT_NOFILE, &before);
    }).get();
    EXPECT_TRUE(pQueue->IsBroken());
    EXPECT_THAT(pQueue->GetReason(), testing::HasSubstr("Too many open files"));
}

TEST_F(OutgoingQueueTest, TheFirstReasonCounts)
{
    _queue.Break("first");
    _queue.Break("second");
    EXPECT_EQ(_queue.GetReason(), "first");
}

}  // namespace
}  // namespace korlo::daemon
