#include "settings/ResourceReserver.h"

#include <algorithm>
#include <future>
#include <string>
#include <vector>

#include <gmock/gmock.h>

#include "support/Files.h"
#include "support/ScriptedServer.h"
#include "support/StoreClients.h"

namespace korlo::settings
{
namespace
{

using Mode = KorloSettingsClient::OperationMode;

constexpr const char* ConsumerGroup = "Resources/Bus/Consumers/video";

std::string Used(const std::string& consumer, int units)
{
    return "[Resources/Bus/Consumers/" + consumer + "]\nCurrentlyUsed=" + std::to_string(units) + '\n';
}

class ResourceReserverTest : public testing::TestWithParam<Mode>
{
protected:
    StoreClients store{GetParam()};
    ResourceReserver reserver{&store.Client(), "Bus", "video"};
};

TEST_P(ResourceReserverTest, TheResourceComesBeforeTheConsumer)
{
    EXPECT_TRUE(reserver.TrySetUsage(20));
    EXPECT_EQ(store.Read("*"), Used("video", 20) + (store.Read("Barrier")));
}

TEST_P(ResourceReserverTest, AResourceWithoutGroupsHasTheDefaults)
{
    EXPECT_EQ(reserver.GetTotalResources(), 100);
    EXPECT_EQ(reserver.GetAvailableResources(), 100);
    EXPECT_EQ(reserver.GetAvailableResourcesPercent(), 1.0);
    EXPECT_EQ(reserver.GetCurrentUsage(), 0);
    EXPECT_TRUE(reserver.IsAuthorized());
}

TEST_P(ResourceReserverTest, ADestroyedReserverGivesNothingBack)
{
    {
        ResourceReserver shortLived(&store.Client(), "Bus", "video");
        EXPECT_TRUE(shortLived.TrySetUsage(20));
    }
    EXPECT_EQ(store.Read(ConsumerGroup), Used("video", 20));
    EXPECT_EQ(reserver.GetCurrentUsage(), 20) << "a successor finds it";
}

TEST_P(ResourceReserverTest, AUsageIsSetAndNotAdded)
{
    EXPECT_TRUE(reserver.TrySetUsage(30));
    EXPECT_TRUE(reserver.TrySetUsage(10));
    EXPECT_EQ(store.Read(ConsumerGroup), Used("video", 10));
}

TEST_P(ResourceReserverTest, AUsageThatIsNotAvailableChangesNothing)
{
    store.Change(Used("audio", 60));
    EXPECT_TRUE(reserver.TrySetUsage(10));
    EXPECT_FALSE(reserver.TrySetUsage(41));
    EXPECT_FALSE(reserver.TrySetUsage(-1));
    EXPECT_FALSE(reserver.TrySetUsagePercent(0.5));
    EXPECT_EQ(store.Read(ConsumerGroup), Used("video", 10));
    EXPECT_TRUE(reserver.TrySetUsage(40));
}

TEST_P(ResourceReserverTest, AConsumerThatIsNotAllowedMaySetItsUsageToZero)
{
    store.Change("[Resources/Bus/AllowedConsumers]\n1=audio\n");
    EXPECT_EQ(reserver.GetAvailableResources(), 0);
    EXPECT_FALSE(reserver.IsAuthorized());
    EXPECT_FALSE(reserver.TrySetUsage(1));
    EXPECT_TRUE(reserver.TrySetUsage(0));
    EXPECT_EQ(store.Read(ConsumerGroup), Used("video", 0));
}

TEST_P(ResourceReserverTest, AUsageOfZeroFailsWhileTheOthersHoldTooMuch)
{
    EXPECT_TRUE(reserver.TrySetUsage(20));
    store.Change(Used("audio", 101));
    EXPECT_EQ(reserver.GetAvailableResources(), -1);
    EXPECT_FALSE(reserver.TrySetUsage(0));
    EXPECT_EQ(store.Read(ConsumerGroup), Used("video", 20));
    store.Change(Used("audio", 100));
    EXPECT_TRUE(reserver.TrySetUsage(0));
    EXPECT_EQ(store.Read(ConsumerGroup), Used("video", 0));
}

TEST_P(ResourceReserverTest, AFractionOfOneIsTheWholeTotal)
{
    store.Change("[Resources/Bus]\nTotalAvailable=37\n");
    EXPECT_TRUE(reserver.TrySetUsagePercent(1.0));
    EXPECT_EQ(store.Read(ConsumerGroup), Used("video", 37));
    EXPECT_TRUE(reserver.TrySetUsagePercent(0.5)) << "half of the total, rounded up";
    EXPECT_EQ(store.Read(ConsumerGroup), Used("video", 19));
}

TEST_P(ResourceReserverTest, AFractionThatExceedsWhatIsAvailableByAHundredthIsClamped)
{
    store.Change(Used("audio", 93));
    EXPECT_TRUE(reserver.TrySetUsagePercent(0.07));
    EXPECT_EQ(store.Read(ConsumerGroup), Used("video", 7));
    EXPECT_FALSE(reserver.TrySetUsagePercent(0.0702));
}

TEST_P(ResourceReserverTest, EveryFigureReflectsTheChangesOfOthersAtOnce)
{
    EXPECT_EQ(reserver.GetAvailableResources(), 100);
    store.Change(Used("audio", 60));
    EXPECT_EQ(reserver.GetAvailableResources(), 40);
    store.Change(Used("audio", 75));
    EXPECT_EQ(reserver.GetAvailableResourcesPercent(), 0.25);
    store.Change(Used("video", 5));
    EXPECT_EQ(reserver.GetCurrentUsage(), 5);
    store.Change("[Resources/Bus]\nTotalAvailable=80\n");
    EXPECT_EQ(reserver.GetTotalResources(), 80);
    store.Change(Used("audio", 10));
    EXPECT_TRUE(reserver.TrySetUsage(70));
    store.Change(Used("audio", 0));
    EXPECT_TRUE(reserver.TrySetUsagePercent(1.0));
}

TEST_P(ResourceReserverTest, IsAuthorizedAnswersFromWhatWasReadLast)
{
    store.Change("[Resources/Bus/AllowedConsumers]\n1=video\n");
    EXPECT_TRUE(reserver.IsAuthorized()) << "it reads what was never read";
    store.Change("[Resources/Bus/AllowedConsumers]\n1=audio\n");
    EXPECT_TRUE(reserver.IsAuthorized()) << "but refreshes nothing";
    EXPECT_EQ(reserver.GetAvailableResources(), 0);
    EXPECT_FALSE(reserver.IsAuthorized());
}

TEST_P(ResourceReserverTest, TwoReserversShareOneTotal)
{
    ResourceReserver audio(&store.Other(), "Bus", "audio");
    EXPECT_TRUE(audio.TrySetUsage(0));
    EXPECT_TRUE(reserver.TrySetUsage(70));
    EXPECT_FALSE(audio.TrySetUsage(31));
    EXPECT_TRUE(audio.TrySetUsage(30));
    EXPECT_EQ(reserver.GetAvailableResources(), 70);
}

TEST_P(ResourceReserverTest, WhatTheClientThrowsPassesOut)
{
    if (GetParam() == Mode::Local)
    {
        return;  // it sends nothing, and so has nothing to refuse
    }
    ResourceReserver refused(&store.Client(), "Bus\n", "video");
    EXPECT_EQ(MessageOf([&refused] { refused.TrySetUsage(1); }),
              "Group name 'Resources/Bus\n*' cannot be sent: it is a full stop or holds a line break");
}

INSTANTIATE_TEST_SUITE_P(Modes, ResourceReserverTest,
                         testing::Values(Mode::MultiThreaded, Mode::SingleThreaded, Mode::Local,
                                         Mode::LocalSingleThreaded, Mode::LocalMultiThreaded),
                         NameOfMode);

TEST(ResourceReserverConstructionTest, ANullClientIsRefused)
{
    EXPECT_EQ(MessageOf([] { ResourceReserver reserver(nullptr, "Bus", "video"); }), "client was NULL");
}

/// Answers each request in turn, and returns all that it heard.
std::string Serve(ScriptedServer& server, const std::vector<std::pair<std::string, std::string>>& exchanges)
{
    const auto pPeer = server.Accept();
    std::string heard;
    for (const auto& [request, response] : exchanges)
    {
        heard += pPeer->Read(static_cast<int>(std::count(request.begin(), request.end(), '\n')));
        pPeer->Send(response);
    }
    constexpr int everything = 1000;
    return heard + pPeer->Read(everything);
}

class ResourceReserverWireTest : public testing::TestWithParam<Mode>
{
};

TEST_P(ResourceReserverWireTest, AReservationTakesTwoRoundTrips)
{
    const std::string get = "get delimited\nResources/Bus*\n.\n";
    const std::string first = "test-and-merge\n.\n" + Used("video", 20) + ".\n";
    const std::string second = "test-and-merge\n" + Used("video", 20) + ".\n" + Used("video", 0) + ".\n";
    ScriptedServer server;
    auto heard = std::async(std::launch::async, [&] {
        return Serve(server, {{get, "data\n.\n"},
                              {first, "result\nok\n"},
                              {get, "data\n" + Used("video", 20) + ".\n"},
                              {second, "result\nok\n"}});
    });
    {
        KorloSettingsClient client(GetParam());
        ResourceReserver reserver(&client, "Bus", "video");
        EXPECT_TRUE(reserver.TrySetUsage(20));
        EXPECT_TRUE(reserver.TrySetUsagePercent(0.0));
    }
    const std::string farewell = GetParam() == Mode::MultiThreaded ? "quit\n" : "";
    EXPECT_EQ(heard.get(), get + first + get + second + farewell);
}

INSTANTIATE_TEST_SUITE_P(Modes, ResourceReserverWireTest, testing::Values(Mode::MultiThreaded, Mode::SingleThreaded),
                         NameOfMode);

}  // namespace
}  // namespace korlo::settings
