#include "korlo/osa/TcpListener.h"

#include <chrono>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include "korlo/osa/Exception.h"
#include "korlo/osa/Mutex.h"
#include "support/LogCapture.h"

namespace korlo::osa
{

namespace
{

using namespace std::chrono_literals;
using testing::ElementsAre;

std::string CaughtFrom(const std::function<void()>& function)
{
    try
    {
        function();
    }
    catch (const Exception& exception)
    {
        return exception.what();
    }
    return {};
}

TEST(TcpListenerTest, PicksAFreePortAndAcceptsOnIt)
{
    TcpListener listener("127.0.0.1", 0);
    EXPECT_NE(listener.GetPort(), 0);
    EXPECT_EQ(listener.GetAddress(), "127.0.0.1:" + std::to_string(listener.GetPort()));

    TcpSocket client(1);
    client.Connect("127.0.0.1", listener.GetPort(), 10);
    const std::unique_ptr<TcpSocket> pServer = listener.Accept();
    ASSERT_NE(pServer, nullptr);
    EXPECT_EQ(pServer->GetPeerAddress().find("127.0.0.1:"), 0u);
    EXPECT_EQ(pServer->WriteAll("hello", 5, Infinite).status, TcpSocket::Done);
    char byte = 0;
    EXPECT_EQ(client.ReadSome(&byte, 1, Infinite).bytes, 1u);
}

TEST(TcpListenerTest, ListensOnEveryAddressWhenGivenNone)
{
    TcpListener listener("", 0);
    TcpSocket client(1);
    client.Connect("127.0.0.1", listener.GetPort(), 10);
    EXPECT_NE(listener.Accept(), nullptr);
}

TEST(TcpListenerTest, NamesAddressPortAndReasonWhenItCannotListen)
{
    TcpListener listener("127.0.0.1", 0);
    EXPECT_EQ(CaughtFrom([&] { TcpListener("127.0.0.1", listener.GetPort()); }),
              "Failed to listen on '" + listener.GetAddress() + "': Address already in use");
    EXPECT_EQ(CaughtFrom([] { TcpListener("192.0.2.1", 4711); }),
              "Failed to listen on '192.0.2.1:4711': Cannot assign requested address");
    const std::string text = CaughtFrom([] { TcpListener("no address", 4711); });
    EXPECT_EQ(text.find("Failed to listen on 'no address:4711': "), 0u) << text;
}

TEST(TcpListenerTest, ACloseWakesEveryThreadInAccept)
{
    TcpListener listener("127.0.0.1", 0);
    std::vector<std::future<bool>> accepting;
    for (int i = 0; i < 3; ++i)
    {
        accepting.push_back(std::async(std::launch::async, [&] { return listener.Accept() == nullptr; }));
    }
    EXPECT_EQ(accepting.front().wait_for(5ms), std::future_status::timeout);
    listener.Close();
    for (std::future<bool>& accept : accepting)
    {
        ASSERT_EQ(accept.wait_for(10s), std::future_status::ready);
        EXPECT_TRUE(accept.get());
    }
}

TEST(TcpListenerTest, AcceptsNobodyAfterTheClose)
{
    TcpListener listener("127.0.0.1", 0);
    const unsigned short port = listener.GetPort();
    listener.Close();
    listener.Close();
    EXPECT_EQ(listener.Accept(), nullptr);
    TcpSocket client(1);
    EXPECT_NE(CaughtFrom([&] { client.Connect("127.0.0.1", port, 10); }), "");
}

TEST(TcpListenerTest, ThePortIsFreeAfterTheClose)
{
    TcpListener first("127.0.0.1", 0);
    TcpSocket client(1);
    client.Connect("127.0.0.1", first.GetPort(), 10);
    const std::unique_ptr<TcpSocket> pServer = first.Accept();
    first.Close();
    EXPECT_EQ(CaughtFrom([&] { TcpListener("127.0.0.1", first.GetPort()); }), "");
}

TEST(TcpListenerTest, AcceptsAgainOnceThereAreDescriptorsAgain)
{
    LogCapture log;
    TcpListener listener("127.0.0.1", 0);
    TcpSocket client(1);
    client.Connect("127.0.0.1", listener.GetPort(), 10);

    rlimit usual{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &usual), 0);
    const int lowestFree = open("/dev/null", O_RDONLY | O_CLOEXEC);
    close(lowestFree);
    const rlimit none{static_cast<rlim_t>(lowestFree), usual.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    auto accepting = std::async(std::launch::async, [&] { return listener.Accept(); });
    while (log.GetMessages().empty())
    {
        std::this_thread::yield();
    }
    EXPECT_EQ(accepting.wait_for(250ms), std::future_status::timeout);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &usual), 0);

    ASSERT_EQ(accepting.wait_for(10s), std::future_status::ready);
    EXPECT_NE(accepting.get(), nullptr);
    EXPECT_THAT(log.GetMessages(), ElementsAre("4 TcpListener: Failed to accept a connection on '" +
                                               listener.GetAddress() + "', trying again: Too many open files"));
}

}  // namespace

}  // namespace korlo::osa
