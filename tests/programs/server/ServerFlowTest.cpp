// Clients that read slowly or not at all, and what the others notice of it.

#include <algorithm>
#include <chrono>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/Files.h"
#include "support/Growth.h"
#include "support/LongTests.h"
#include "support/ServerProcess.h"
#include "support/TemporaryFolder.h"

namespace korlo::daemon
{
namespace
{

using testing::HasSubstr;

std::string BigGroup(std::size_t bytes)
{
    return "[Big]\nk=" + std::string(bytes, 'x') + '\n';
}

class ServerFlowTest : public testing::Test
{
protected:
    TemporaryFolder _folder;
    const std::string _user = _folder.PathOf("user.ini");
};

TEST_F(ServerFlowTest, AResponseLargerThanTheBacklogReachesAClientThatReads)
{
    const std::string big = BigGroup(8'000'000);
    ServerProcess server({"--user", _user, "--max-backlog", "1000"});
    RawClient client(server.GetPort());
    EXPECT_TRUE(client.TestAndMerge("", big));
    EXPECT_TRUE(client.Get("Big") == big);
    EXPECT_EQ(client.Get("None"), "");
}

TEST_F(ServerFlowTest, AClientThatAsksForMuchAndReadsSlowlyGetsEveryByte)
{
    const std::string big = BigGroup(1'000'000);
    constexpr int requests = 200;
    ServerProcess server({"--user", _user});
    RawClient client(server.GetPort());
    EXPECT_TRUE(client.TestAndMerge("", big));
    for (int i = 0; i < requests; ++i)
    {
        client.Send("get delimited\nBig\n.\n");
    }
    RawClient other(server.GetPort());
    EXPECT_EQ(other.Get("None"), "");
    for (int i = 0; i < requests; ++i)
    {
        ASSERT_EQ(client.ReadLine(), "data");
        ASSERT_TRUE(client.ReadBlock() == big);
    }
}

TEST_F(ServerFlowTest, AClientThatMustGetRidOfItsRequestBeforeItReadsIsNotKeptFromIt)
{
    const std::string big = BigGroup(8'000'000);
    ServerProcess server({"--user", _user});
    RawClient client(server.GetPort());
    EXPECT_TRUE(client.TestAndMerge("", big));
    // More than the system keeps in either direction.
    ASSERT_TRUE(client.Send("get delimited\nBig\n.\nget delimited\nBig\n.\nmerge\n[New]\nk=" +
                            std::string(14'000'000, 'n') + "\n.\nget delimited\nNone\n.\n"));
    EXPECT_EQ(client.ReadLine(), "data");
    EXPECT_TRUE(client.ReadBlock() == big);
    EXPECT_EQ(client.ReadLine(), "data");
    EXPECT_TRUE(client.ReadBlock() == big);
    EXPECT_EQ(client.ReadLine(), "data");
    EXPECT_EQ(client.ReadBlock(), "");
}

TEST_F(ServerFlowTest, ASubscriberIsNotDisconnectedForAResponseOfItsOwn)
{
    ServerProcess server({"--user", _user, "--max-backlog", "2000"});
    RawClient subscriber(server.GetPort());
    RawClient changer(server.GetPort());
    const std::string big = BigGroup(12'000'000);
    EXPECT_TRUE(changer.TestAndMerge("", big));
    subscriber.Send("subscribe\nA\n.\nget delimited\nBig\n.\n");
    EXPECT_EQ(subscriber.ReadLine(), "data");  // the rest of the response is on its way now
    for (int i = 0; i < 20; ++i)
    {
        EXPECT_TRUE(changer.TestAndMerge("", "[A]\nk=" + std::to_string(i) + '\n'));
    }
    EXPECT_TRUE(subscriber.ReadBlock() == big);
    for (int i = 0; i < 20; ++i)
    {
        EXPECT_EQ(subscriber.ReadLine(), "async change");
        EXPECT_EQ(subscriber.ReadBlock(), "A\n");
        EXPECT_THAT(subscriber.ReadBlock(), HasSubstr("[A]\nk="));
    }
    EXPECT_EQ(server.End(), 0);
    EXPECT_EQ(server.GetChild().GetErrors(), "");
}

TEST_F(ServerFlowTest, ANotificationLargerThanTheBacklogReachesASubscriberThatReads)
{
    const std::string big = BigGroup(12'000'000);
    ServerProcess server({"--user", _user, "--max-backlog", "1000"});
    RawClient subscriber(server.GetPort());
    subscriber.Send("subscribe\nBig\nSmall\n.\n");
    EXPECT_EQ(subscriber.Get("None"), "");
    RawClient changer(server.GetPort());
    EXPECT_TRUE(changer.Send("merge nopersist\n" + big + ".\nmerge nopersist\n[Small]\nk=1\n.\n"));
    for (const std::string& change : {big, std::string("[Small]\nk=1\n")})
    {
        EXPECT_EQ(subscriber.ReadLine(), "async change");
        subscriber.ReadBlock();
        EXPECT_TRUE(subscriber.ReadBlock() == change);
    }
    EXPECT_EQ(server.End(), 0);
    EXPECT_EQ(server.GetChild().GetErrors(), "");
}

TEST_F(ServerFlowTest, ManyNotificationsAtOnceReachASubscriberWithASmallBacklog)
{
    constexpr int changes = 500;
    ServerProcess server({"--user", _user, "--max-backlog", "1000"});
    RawClient subscriber(server.GetPort());
    subscriber.Send("subscribe\nA\n.\n");
    EXPECT_EQ(subscriber.Get("None"), "");
    std::string requests;
    for (int i = 0; i < changes; ++i)
    {
        requests += "merge nopersist\n[A]\nk=" + std::to_string(i) + "\n.\n";
    }
    RawClient changer(server.GetPort());
    EXPECT_TRUE(changer.Send(requests));
    for (int i = 0; i < changes; ++i)
    {
        ASSERT_EQ(subscriber.ReadLine(), "async change");
        ASSERT_EQ(subscriber.ReadBlock(), "A\n");
        ASSERT_EQ(subscriber.ReadBlock(), "[A]\nk=" + std::to_string(i) + '\n');
    }
}

/// Ten subscribers, of which one may stop reading, while changes run.
class SubscribersTest : public ServerFlowTest
{
protected:
    using Clock = std::chrono::steady_clock;

    struct Outcome
    {
        Clock::duration p99;
        std::size_t residentKiB;
        std::string errors;
    };

    // 100000 in the long form, with small changes; the short form gets to the same backlog by larger ones.
    static int Changes() { return AreTestsLong() ? 100'000 : 4'000; }
    static std::size_t ValueBytes() { return AreTestsLong() ? 120 : 4'000; }

    static std::string Change(int number)
    {
        return "[Sub]\nk=" + std::string(ValueBytes(), 'v') + std::to_string(number) + '\n';
    }

    /// The number of changes that a subscriber heard of, up to the last.
    static int ReadToTheLast(RawClient& subscriber)
    {
        const std::string last = std::to_string(Changes() - 1) + '\n';
        for (int count = 1;; ++count)
        {
            if (subscriber.ReadLine() != "async change")
            {
                return -count;
            }
            subscriber.ReadBlock();
            if (subscriber.ReadBlock().ends_with('v' + last))
            {
                return count;
            }
        }
    }

    Outcome Run(bool oneStops) const
    {
        ServerProcess server({"--user", _user});
        std::vector<std::unique_ptr<RawClient>> subscribers;
        for (int i = 0; i < 10; ++i)
        {
            subscribers.push_back(std::make_unique<RawClient>(server.GetPort()));
            subscribers.back()->Send("subscribe\nSub\n.\n");
            EXPECT_EQ(subscribers.back()->Get("None"), "");
        }
        std::vector<std::future<int>> readers;
        for (std::size_t i = oneStops ? 1 : 0; i < subscribers.size(); ++i)
        {
            readers.push_back(std::async(std::launch::async, ReadToTheLast, std::ref(*subscribers[i])));
        }
        std::vector<Clock::duration> times = MakeChanges(server.GetPort());
        const std::size_t residentKiB = server.GetResidentKiB();
        for (std::future<int>& reader : readers)
        {
            EXPECT_EQ(reader.get(), Changes());
        }
        if (oneStops)
        {
            server.GetChild().AwaitErrors("is disconnected, it does not read its notifications");
        }
        EXPECT_EQ(server.End(), 0);
        std::sort(times.begin(), times.end());
        return {times[times.size() * 99 / 100], residentKiB, server.GetChild().GetErrors()};
    }

    static std::vector<Clock::duration> MakeChanges(unsigned short port)
    {
        RawClient writer(port);
        std::vector<Clock::duration> times;
        for (int i = 0; i < Changes(); ++i)
        {
            const Clock::time_point begin = Clock::now();
            writer.Send("merge nopersist\n" + Change(i) + ".\nget delimited\nNone\n.\n");
            writer.ReadLine();
            writer.ReadBlock();
            times.push_back(Clock::now() - begin);
        }
        return times;
    }
};

TEST_F(SubscribersTest, OneThatStopsReadingDelaysNobodyAndIsDisconnectedAlone)
{
    const Outcome all = Run(false);
    EXPECT_EQ(all.errors, "");
    // Generous, for a machine with other work: a writer that waits for the stopped one would wait for good, and all
    // that it has not read is twice as much.
    const Clock::duration mostTime = 5 * all.p99 + std::chrono::milliseconds(50);
    const std::size_t mostKiB = all.residentKiB + GrowthKiB(8 * 1024);
    Outcome withoutOne{};
    for (int attempt = 0;
         attempt < 3 && (attempt == 0 || withoutOne.p99 >= mostTime || withoutOne.residentKiB >= mostKiB); ++attempt)
    {
        withoutOne = Run(true);
        EXPECT_EQ(std::count(withoutOne.errors.begin(), withoutOne.errors.end(), '\n'), 1);
    }
    EXPECT_LT(withoutOne.p99, mostTime);
    EXPECT_LT(withoutOne.residentKiB, mostKiB);
    RecordProperty("P99MicrosecondsAllRead", static_cast<int>(all.p99.count() / 1000));
    RecordProperty("P99MicrosecondsOneStopped", static_cast<int>(withoutOne.p99.count() / 1000));
}

}  // namespace
}  // namespace korlo::daemon
