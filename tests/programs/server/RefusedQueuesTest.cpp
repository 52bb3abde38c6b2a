#include "RefusedQueues.h"

#include <future>
#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include "NotificationRound.h"
#include "korlo/osa/Exception.h"
#include "support/ServerProcess.h"
#include "support/TcpPair.h"

namespace korlo::daemon
{
namespace
{

constexpr std::size_t Much = 32 * 1024 * 1024;  // more than the system keeps for a connection

/// A connection whose own thread does nothing, and its client's end.
struct Subscriber
{
    explicit Subscriber(GatheredQueues& gathered)
        : pQueue(std::make_shared<OutgoingQueue>(*pair.pServer, Much, gathered))
    {
    }

    Subscriber(const Subscriber&) = delete;
    Subscriber& operator=(const Subscriber&) = delete;
    ~Subscriber() { pQueue->Break("the end"); }

    TcpPair pair;
    std::shared_ptr<OutgoingQueue> pQueue;
};

/// Subscribers, and a thread that notifies them.
class RefusedQueuesTest : public testing::Test
{
protected:
    /// @param text is sent at once, and not gathered.
    void Notify(Subscriber& subscriber, const std::string& text)
    {
        EXPECT_TRUE(subscriber.pQueue->Send(text.data(), text.size()));
        subscriber.pQueue->SendGathered();
    }

    const std::string _much = std::string(Much, 'n');
    GatheredQueues _gathered;
};

TEST_F(RefusedQueuesTest, SendsWhatASocketHasRefusedAsItsClientReads)
{
    Subscriber subscriber(_gathered);
    for (int i = 0; i < 2; ++i)
    {
        Notify(subscriber, _much);
        EXPECT_GT(subscriber.pQueue->GetRefusedBytes(), 0u);
        Notify(subscriber, "behind it");
        EXPECT_TRUE(ReadBytes(subscriber.pair.client, Much + 9) == _much + "behind it");
    }
}

TEST_F(RefusedQueuesTest, AClientThatDoesNotReadKeepsNobodyFromItsNotifications)
{
    Subscriber idle(_gathered);
    Subscriber reader(_gathered);
    Notify(idle, _much);
    Notify(reader, _much);
    EXPECT_TRUE(ReadBytes(reader.pair.client, Much) == _much);
    EXPECT_GT(idle.pQueue->GetRefusedBytes(), 0u);
    EXPECT_TRUE(ReadBytes(idle.pair.client, Much) == _much);
}

TEST_F(RefusedQueuesTest, ABrokenConnectionIsForgotten)
{
    std::weak_ptr<OutgoingQueue> pForgotten;
    {
        Subscriber broken(_gathered);
        Notify(broken, _much);
        pForgotten = broken.pQueue;
    }
    EXPECT_TRUE(Eventually([&pForgotten] { return pForgotten.expired(); }));
}

TEST_F(RefusedQueuesTest, EndsWhileClientsDoNotRead)
{
    std::unique_ptr<Subscriber> pSubscriber;
    {
        GatheredQueues gathered;
        pSubscriber = std::make_unique<Subscriber>(gathered);
        Notify(*pSubscriber, _much);
    }
    EXPECT_GT(pSubscriber->pQueue->GetRefusedBytes(), 0u);
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

TEST_F(RefusedQueuesTest, WithoutADescriptorTheFirstSubscriberIsBrokenAndTheNextIsServed)
{
    ASSERT_EQ(TextOfAnException(), "seen before");
    Subscriber first(_gathered);
    Subscriber second(_gathered);
    rlimit before{};
    getrlimit(RLIMIT_NOFILE, &before);
    const rlimit none{3, before.rlim_max};  // which are open already
    setrlimit(RLIMIT_NOFILE, &none);
    first.pQueue->Send(_much.data(), _much.size());
    setrlimit(RLIMIT_NOFILE, &before);
    EXPECT_THAT(first.pQueue->GetReason(), testing::HasSubstr("Too many open files"));
    Notify(second, _much);
    EXPECT_TRUE(ReadBytes(second.pair.client, Much) == _much);
}

}  // namespace
}  // namespace korlo::daemon
