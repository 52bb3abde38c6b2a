// Waiting for a socket and being woken.

#include <future>
#include <string>

#include <gtest/gtest.h>

#include "korlo/osa/TcpSocket.h"
#include "support/TcpPair.h"

namespace korlo::osa
{
namespace
{

constexpr unsigned int LimitMs = 30'000;

TEST(TcpSocketWaitTest, TellsWhatTheConnectionIsReadyFor)
{
    TcpPair pair;
    EXPECT_EQ(pair.client.Wait(true, false, 0), 0u);
    EXPECT_EQ(pair.client.Wait(true, true, 0), TcpSocket::Writable);
    pair.pServer->WriteAll("x", 1, LimitMs);
    EXPECT_EQ(pair.client.Wait(true, false, LimitMs), TcpSocket::Readable);
    EXPECT_EQ(pair.client.Wait(true, true, LimitMs), TcpSocket::Readable | TcpSocket::Writable);
    EXPECT_EQ(pair.client.Wait(false, true, LimitMs), TcpSocket::Writable);
}

TEST(TcpSocketWaitTest, WakeEndsTheWaitThatIsUnderWay)
{
    TcpPair pair;
    auto waiting = std::async(std::launch::async, [&] { return pair.client.Wait(true, false, LimitMs); });
    pair.client.Wake();
    EXPECT_EQ(waiting.get(), TcpSocket::Woken);
}

TEST(TcpSocketWaitTest, OneWaitTakesAllWakesBeforeIt)
{
    TcpPair pair;
    pair.client.Wake();
    pair.client.Wake();
    EXPECT_EQ(pair.client.Wait(true, false, LimitMs), TcpSocket::Woken);
    EXPECT_EQ(pair.client.Wait(true, false, 0), 0u);
}

TEST(TcpSocketWaitTest, AClosedConnectionIsReadyForEverything)
{
    TcpPair pair;
    auto waiting = std::async(std::launch::async, [&] { return pair.client.Wait(true, false, LimitMs); });
    pair.client.Close();
    EXPECT_EQ(waiting.get(), TcpSocket::Readable | TcpSocket::Writable);
    EXPECT_EQ(pair.client.Wait(false, false, LimitMs), TcpSocket::Readable | TcpSocket::Writable);
}

TEST(TcpSocketWaitTest, EndReadingEndsAReadAndEveryWaitAndLetsBytesOut)
{
    TcpPair pair;
    char byte = 0;
    auto reading = std::async(std::launch::async, [&] { return pair.client.ReadSome(&byte, 1, Infinite).status; });
    auto waiting = std::async(std::launch::async, [&] { return pair.pServer->Wait(false, false, LimitMs); });
    pair.client.EndReading();
    pair.pServer->EndReading();
    EXPECT_EQ(reading.get(), TcpSocket::EndOfStream);
    EXPECT_EQ(waiting.get(), TcpSocket::Woken);
    EXPECT_EQ(pair.client.WriteAll("x", 1, LimitMs).status, TcpSocket::Done);
}

TEST(TcpSocketWaitTest, EndReadingEndsTheNextWaitToo)
{
    TcpPair pair;
    pair.client.EndReading();
    EXPECT_EQ(pair.client.Wait(false, false, LimitMs), TcpSocket::Woken);
    EXPECT_EQ(pair.client.Wait(true, false, LimitMs), TcpSocket::Readable);
}

TEST(TcpSocketWaitTest, APeerThatHasSentItsLastIsReadableOnly)
{
    TcpPair pair;
    pair.pServer.reset();
    EXPECT_EQ(pair.client.Wait(true, false, LimitMs), TcpSocket::Readable);
    EXPECT_EQ(pair.client.Wait(false, false, 0), 0u);
}

}  // namespace
}  // namespace korlo::osa
