#include "korlo/osa/TcpListener.h"

#include <chrono>
#include <future>
#include <memory>
#include <semaphore>
#include <string>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include "korlo/core/Logger.h"
#include "korlo/osa/Exception.h"
#include "korlo/osa/Mutex.h"
#include "support/Files.h"
#include "support/LogWatch.h"
#include "support/SocketBehaviour.h"

namespace korlo::osa
{
namespace
{

using namespace std::chrono_literals;
using testing::ElementsAre;

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
    EXPECT_EQ(MessageOf([&] { TcpListener("127.0.0.1", listener.GetPort()); }),
              "Failed to listen on '" + listener.GetAddress() + "': Address already in use");
    EXPECT_EQ(MessageOf([] { TcpListener("192.0.2.1", 4711); }),
              "Failed to listen on '192.0.2.1:4711': Cannot assign requested address");
    const std::string text = MessageOf([] { TcpListener("no address", 4711); });
    EXPECT_EQ(text.find("Failed to listen on 'no address:4711': "), 0u) << text;
}

TEST(TcpListenerTest, ACloseWakesEveryThreadInAccept)
{
    TcpListener listener("127.0.0.1", 0);
    ExpectThatACloseWakesEveryAccept(listener);
}

TEST(TcpListenerTest, AcceptsNobodyAfterTheClose)
{
    TcpListener listener("127.0.0.1", 0);
    const unsigned short port = listener.GetPort();
    listener.Close();
    listener.Close();
    EXPECT_EQ(listener.Accept(), nullptr);
    TcpSocket client(1);
    EXPECT_NE(MessageOf([&] { client.Connect("127.0.0.1", port, 10); }), "");
}

TEST(TcpListenerTest, ThePortIsFreeAfterTheClose)
{
    TcpListener first("127.0.0.1", 0);
    TcpSocket client(1);
    client.Connect("127.0.0.1", first.GetPort(), 10);
    const std::unique_ptr<TcpSocket> pServer = first.Accept();
    first.Close();
    EXPECT_EQ(MessageOf([&] { TcpListener("127.0.0.1", first.GetPort()); }), "");
}

/// Leaves the process without a free descriptor while it lives.
class NoFreeDescriptor
{
public:
    NoFreeDescriptor()
    {
        getrlimit(RLIMIT_NOFILE, &_usual);
        const int lowestFree = open("/dev/null", O_RDONLY | O_CLOEXEC);
        close(lowestFree);
        const rlimit none{static_cast<rlim_t>(lowestFree), _usual.rlim_max};
        setrlimit(RLIMIT_NOFILE, &none);
    }

    ~NoFreeDescriptor() { setrlimit(RLIMIT_NOFILE, &_usual); }

    NoFreeDescriptor(const NoFreeDescriptor&) = delete;
    NoFreeDescriptor& operator=(const NoFreeDescriptor&) = delete;

private:
    rlimit _usual{};
};

// The sanitizer of virtual calls opens a pipe to look at an object of a type that it has not met yet. What is called
// while no descriptor is free is therefore called once before: an accept in its thread, and a warning.
TEST(TcpListenerTest, AcceptsAgainOnceThereAreDescriptorsAgain)
{
    LogWatch log;
    core::Logger::GetLogger("TcpListener")->Warning("before");
    ASSERT_TRUE(log.WaitFor("4 TcpListener: before"));
    TcpListener listener("127.0.0.1", 0);
    const std::string warning = "4 TcpListener: Failed to accept a connection on '" + listener.GetAddress() +
                                "', trying again: Too many open files";
    std::binary_semaphore accepted(0);
    std::binary_semaphore exhausted(0);
    auto accepting = std::async(std::launch::async, [&] {
        listener.Accept();
        accepted.release();
        exhausted.acquire();
        return listener.Accept();
    });
    TcpSocket first(1);
    first.Connect("127.0.0.1", listener.GetPort(), 10);
    accepted.acquire();
    TcpSocket second(1);
    second.Connect("127.0.0.1", listener.GetPort(), 10);
    EXPECT_EQ(accepting.wait_for(0ms), std::future_status::timeout);
    {
        const NoFreeDescriptor none;
        exhausted.release();
        EXPECT_TRUE(log.WaitFor(warning));
        EXPECT_EQ(accepting.wait_for(250ms), std::future_status::timeout);
    }

    ASSERT_EQ(accepting.wait_for(10s), std::future_status::ready);
    EXPECT_NE(accepting.get(), nullptr);
    EXPECT_THAT(log.GetMessages(), ElementsAre("4 TcpListener: before", warning));
}

}  // namespace

}  // namespace korlo::osa
