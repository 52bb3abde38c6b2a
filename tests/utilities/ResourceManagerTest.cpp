#include "settings/ResourceManager.h"

#include <cmath>
#include <future>
#include <limits>
#include <string>

#include <gmock/gmock.h>

#include "support/Files.h"
#include "support/StoreClients.h"

namespace korlo::settings
{
namespace
{

using core::IniFile;
using Mode = KorloSettingsClient::OperationMode;
using Usage = ResourceManager::ResourceUsage;

constexpr int IntMax = std::numeric_limits<int>::max();
constexpr int IntMin = std::numeric_limits<int>::min();

std::string Consumer(const std::string& name, int used, const std::string& resource = "R")
{
    return "[Resources/" + resource + "/Consumers/" + name + "]\nCurrentlyUsed=" + std::to_string(used) + '\n';
}

std::string Total(int total, const std::string& resource = "R")
{
    return "[Resources/" + resource + "]\nTotalAvailable=" + std::to_string(total) + '\n';
}

Usage Units(const std::string& resource, int units)
{
    return {resource, false, units, 0.0};
}

Usage Share(const std::string& resource, double fraction)
{
    return {resource, true, 0, fraction};
}

class ResourceManagerTest : public testing::TestWithParam<Mode>
{
protected:
    bool ReserveShare(double fraction) { return manager.ReserveForConsumer("A", {Share("R", fraction)}); }

    StoreClients store{GetParam()};
    ResourceManager manager{&store.Client()};
};

TEST_P(ResourceManagerTest, AResourceWithoutGroupsHasTheDefaults)
{
    EXPECT_EQ(manager.GetTotal("R"), 100);
    EXPECT_EQ(manager.GetUsed("A", "R"), 0);
    EXPECT_EQ(manager.GetAvailable("A", "R"), 100);
    EXPECT_EQ(manager.GetAvailablePercent("A", "R"), 1.0);
    EXPECT_TRUE(manager.IsAuthorized("A", "R"));
}

TEST_P(ResourceManagerTest, WhatTheOthersLeaveIsAvailable)
{
    store.Change(Consumer("A", 30) + Consumer("B", 50));
    EXPECT_EQ(manager.GetUsed("A", "R"), 30);
    EXPECT_EQ(manager.GetAvailable("A", "R"), 50);
    EXPECT_EQ(manager.GetAvailable("B", "R"), 70);
    EXPECT_EQ(manager.GetAvailable("D", "R"), 20);
    store.Change("[Resources/R/Consumers/D]\nMaxAllowed=10\n");
    EXPECT_EQ(manager.GetAvailable("D", "R"), 20) << "figures are not refreshed by themselves";
    manager.Refresh();
    EXPECT_EQ(manager.GetAvailable("D", "R"), 10);
}

TEST_P(ResourceManagerTest, ACapCountsWhenItIsLessThanWhatIsLeft)
{
    store.Change(Consumer("B", 50) + "[Resources/R/Consumers/A]\nMaxAllowed=60\n[Resources/R/Consumers/C]\n"
                                     "MaxAllowed=-5\n[Resources/R/Consumers/D]\nMaxAllowed=many\n");
    EXPECT_EQ(manager.GetAvailable("A", "R"), 50);
    EXPECT_EQ(manager.GetAvailable("C", "R"), -5);
    EXPECT_EQ(manager.GetAvailable("D", "R"), 50) << "a cap that is no number is none";
}

TEST_P(ResourceManagerTest, MalformedNumbersCountAsTheDefaults)
{
    store.Change("[Resources/R]\nTotalAvailable=lots\n[Resources/R/Consumers/A]\nCurrentlyUsed=1.5\n"
                 "[Resources/R/Consumers/B]\nCurrentlyUsed=99999999999\n");
    EXPECT_EQ(manager.GetTotal("R"), 100);
    EXPECT_EQ(manager.GetUsed("A", "R"), 0);
    EXPECT_EQ(manager.GetAvailable("A", "R"), 100);
}

TEST_P(ResourceManagerTest, AConsumersSubgroupsDoNotCountItTwice)
{
    store.Change(Consumer("A", 30) + "[Resources/R/Consumers/A/Detail]\nCurrentlyUsed=30\nx=1\n"
                                     "[Resources/R/Consumers/A/Other]\nx=1\n");
    EXPECT_EQ(manager.GetAvailable("B", "R"), 70);
}

TEST_P(ResourceManagerTest, OnlyAdjacentRepeatsOfAConsumerAreDropped)
{
    // "A!" lies between "A" and "A/Detail", so A comes back and counts twice.
    store.Change(Consumer("A", 30) + Consumer("A!", 1) + "[Resources/R/Consumers/A/Detail]\nx=1\n");
    EXPECT_EQ(manager.GetAvailable("B", "R"), 39);
    EXPECT_EQ(manager.GetAvailable("A!", "R"), 40);
    EXPECT_EQ(manager.GetAvailable("A", "R"), 99);
}

TEST_P(ResourceManagerTest, AConsumerThatHasOnlySubgroupsUsesNothing)
{
    store.Change("[Resources/R/Consumers/A/Detail]\nCurrentlyUsed=30\n[Resources/R/Consumers]\nCurrentlyUsed=5\n");
    EXPECT_EQ(manager.GetAvailable("B", "R"), 100);
    EXPECT_EQ(manager.GetUsed("A", "R"), 0);
}

TEST_P(ResourceManagerTest, TheConsumerWithoutANameCountsOnlyAfterAnother)
{
    store.Change("[Resources/R/Consumers/]\nCurrentlyUsed=30\n");
    EXPECT_EQ(manager.GetAvailable("B", "R"), 100);
    store.Change(Consumer("!", 1) + "[Resources/R/Consumers//Detail]\nx=1\n");
    manager.Refresh();
    EXPECT_EQ(manager.GetAvailable("B", "R"), 69);
}

TEST_P(ResourceManagerTest, AvailableIsNegativeWhenTheOthersHoldTooMuch)
{
    store.Change(Consumer("B", 70) + Consumer("C", 50));
    EXPECT_EQ(manager.GetAvailable("A", "R"), -20);
    EXPECT_EQ(manager.GetAvailablePercent("A", "R"), -0.2);
    EXPECT_EQ(manager.GetAvailable("B", "R"), 50);
}

TEST_P(ResourceManagerTest, FiguresBeyondTheRangeOfIntAreCutOffAtItsEnds)
{
    store.Change(Consumer("B", IntMax) + Consumer("C", IntMax) + Consumer("X", IntMin, "Q") +
                 Consumer("Y", IntMin, "Q"));
    EXPECT_EQ(manager.GetAvailable("A", "R"), IntMin);
    EXPECT_EQ(manager.GetAvailable("A", "Q"), IntMax);
}

TEST_P(ResourceManagerTest, TheAvailableShareIsAFractionOfTheTotal)
{
    store.Change(Consumer("B", 75));
    EXPECT_EQ(manager.GetAvailablePercent("A", "R"), 0.25);
    store.Change(Total(300));
    manager.Refresh();
    EXPECT_EQ(manager.GetAvailablePercent("A", "R"), 0.75);
}

TEST_P(ResourceManagerTest, TheAvailableShareOfATotalOfZeroDividesByZero)
{
    store.Change(Total(0) + Total(0, "Q") + Consumer("B", 5, "Q"));
    EXPECT_TRUE(std::isnan(manager.GetAvailablePercent("A", "R")));
    EXPECT_EQ(manager.GetAvailablePercent("A", "Q"), -std::numeric_limits<double>::infinity());
}

TEST_P(ResourceManagerTest, OnlyTheValuesOfTheAllowedListName)
{
    store.Change("[Resources/R/AllowedConsumers]\n1=A\nB=Other\n");
    EXPECT_TRUE(manager.IsAuthorized("A", "R"));
    EXPECT_TRUE(manager.IsAuthorized("Other", "R"));
    EXPECT_FALSE(manager.IsAuthorized("B", "R")) << "keys are ignored";
    EXPECT_FALSE(manager.IsAuthorized("a", "R")) << "case counts";
    EXPECT_FALSE(manager.IsAuthorized("Oth", "R"));
    EXPECT_FALSE(manager.IsAuthorized("", "R"));
}

TEST_P(ResourceManagerTest, AnEmptyAllowedListLetsNobodyIn)
{
    IniFile list;
    list["Resources/R/AllowedConsumers"];
    store.Other().MergeSettings(list);
    ASSERT_EQ(store.Read("Resources/R*"), "[Resources/R/AllowedConsumers]\n");
    EXPECT_FALSE(manager.IsAuthorized("A", "R"));
    EXPECT_EQ(manager.GetAvailable("A", "R"), 0);
}

TEST_P(ResourceManagerTest, AConsumerThatIsNotAllowedMayReserveNothingButZero)
{
    store.Change("[Resources/R/AllowedConsumers]\n1=A\n" + Consumer("B", 5));
    EXPECT_EQ(manager.GetAvailable("B", "R"), 0);
    EXPECT_FALSE(manager.ReserveResource("B", "R", 1));
    EXPECT_EQ(store.Read("Resources/R/Consumers/*"), Consumer("B", 5));
    EXPECT_TRUE(manager.ReserveResource("B", "R", 0));
    EXPECT_EQ(store.Read("Resources/R/Consumers/*"), Consumer("B", 0));
}

TEST_P(ResourceManagerTest, TheAvailableAmountCanBeReservedAndNoUnitMore)
{
    store.Change(Consumer("B", 60));
    EXPECT_FALSE(manager.ReserveResource("A", "R", 41));
    EXPECT_EQ(store.Read("Resources/R*"), Consumer("B", 60)) << "a failure writes nothing";
    EXPECT_TRUE(manager.ReserveResource("A", "R", 40));
    EXPECT_EQ(store.Read("Resources/R*"), Consumer("A", 40) + Consumer("B", 60));
    EXPECT_EQ(manager.GetUsed("A", "R"), 40) << "what was written is known without a refresh";
}

TEST_P(ResourceManagerTest, NegativeAmountsFail)
{
    EXPECT_FALSE(manager.ReserveResource("A", "R", -1));
    EXPECT_FALSE(manager.ReserveResource("A", "R", IntMin));
    EXPECT_FALSE(ReserveShare(-0.01));
    EXPECT_EQ(store.Read("Resources*"), "");
}

TEST_P(ResourceManagerTest, AReservationReplacesTheHolding)
{
    EXPECT_TRUE(manager.ReserveResource("A", "R", 80));
    EXPECT_TRUE(manager.ReserveResource("A", "R", 90)) << "the present holding is available to its holder";
    EXPECT_TRUE(manager.ReserveResource("A", "R", 10));
    EXPECT_EQ(store.Read("Resources*"), Consumer("A", 10));
}

TEST_P(ResourceManagerTest, OnlyTheUsageIsWritten)
{
    store.Change(Total(50) + "[Resources/R/Consumers/A]\nMaxAllowed=20\nnote=mine\n");
    EXPECT_TRUE(manager.ReserveResource("A", "R", 20));
    EXPECT_EQ(store.Read("Resources*"),
              Total(50) + "[Resources/R/Consumers/A]\nCurrentlyUsed=20\nMaxAllowed=20\nnote=mine\n");
}

TEST_P(ResourceManagerTest, ARequestForZeroFailsWhileTheOthersHoldTooMuch)
{
    store.Change(Consumer("A", 5) + Consumer("B", 101));
    EXPECT_FALSE(manager.ReserveResource("A", "R", 0));
    EXPECT_FALSE(ReserveShare(0.0));
    EXPECT_EQ(store.Read("Resources/R/Consumers/A"), Consumer("A", 5));
    store.Change(Consumer("B", 100));
    manager.Refresh();
    EXPECT_TRUE(manager.ReserveResource("A", "R", 0));
    EXPECT_EQ(store.Read("Resources/R/Consumers/A"), Consumer("A", 0));
}

TEST_P(ResourceManagerTest, AFractionIsRoundedUpToWholeUnits)
{
    store.Change(Total(10));
    EXPECT_TRUE(ReserveShare(0.25));
    EXPECT_EQ(store.Read("Resources/R/Consumers/A"), Consumer("A", 3));
    EXPECT_TRUE(ReserveShare(0.5));
    EXPECT_EQ(store.Read("Resources/R/Consumers/A"), Consumer("A", 5));
    EXPECT_TRUE(ReserveShare(1.0));
    EXPECT_EQ(store.Read("Resources/R/Consumers/A"), Consumer("A", 10));
    EXPECT_TRUE(ReserveShare(0.0));
    EXPECT_EQ(store.Read("Resources/R/Consumers/A"), Consumer("A", 0));
    EXPECT_TRUE(ReserveShare(-0.05)) << "that is -0.5 units, and 0 rounded up";
    EXPECT_EQ(store.Read("Resources/R/Consumers/A"), Consumer("A", 0));
}

TEST_P(ResourceManagerTest, AFractionThatFitsButForFloatingPointErrorTakesWhatIsAvailable)
{
    ASSERT_GT(0.07 * 100, 7.0);
    store.Change(Consumer("B", 93));
    EXPECT_TRUE(ReserveShare(0.07));
    EXPECT_EQ(store.Read("Resources/R/Consumers/A"), Consumer("A", 7));
    store.Change(Consumer("A", 0));
    manager.Refresh();
    EXPECT_TRUE(ReserveShare(0.07009)) << "7.009 is within a hundredth of 7";
    EXPECT_EQ(store.Read("Resources/R/Consumers/A"), Consumer("A", 7));
    EXPECT_FALSE(ReserveShare(0.0702)) << "7.02 is not";
}

TEST_P(ResourceManagerTest, AFractionWithRoomToSpareIsRoundedUpEvenForFloatingPointError)
{
    EXPECT_TRUE(ReserveShare(0.07));
    EXPECT_EQ(store.Read("Resources/R/Consumers/A"), Consumer("A", 8));
}

TEST_P(ResourceManagerTest, AFractionOfMoreThanIsAvailableFails)
{
    store.Change(Total(10) + Consumer("B", 7));
    EXPECT_EQ(manager.GetAvailable("A", "R"), 3);
    EXPECT_FALSE(ReserveShare(0.5));
    EXPECT_FALSE(ReserveShare(0.31));
    EXPECT_EQ(store.Read("Resources/R/Consumers/A"), "");
}

TEST_P(ResourceManagerTest, AFractionForWhichNoUnitsAreLeftFailsBelowZero)
{
    store.Change(Consumer("B", 101));
    EXPECT_FALSE(ReserveShare(-0.01)) << "minus one is available and still no amount";
    EXPECT_FALSE(ReserveShare(-0.00995));
}

TEST_P(ResourceManagerTest, FractionsThatNoNumberOfUnitsStandsForFail)
{
    constexpr double infinity = std::numeric_limits<double>::infinity();
    for (const double fraction : {std::nan(""), infinity, -infinity, 1e300, -1e300, 42949672.96, 21474836.49})
    {
        SCOPED_TRACE(fraction);
        EXPECT_FALSE(ReserveShare(fraction));
    }
    EXPECT_EQ(store.Read("Resources*"), "");
    store.Change(Total(0));
    manager.Refresh();
    EXPECT_FALSE(ReserveShare(infinity)) << "infinity times nothing is no number";
    EXPECT_TRUE(ReserveShare(1e300));
    EXPECT_EQ(store.Read("Resources/R/Consumers/A"), Consumer("A", 0));
}

TEST_P(ResourceManagerTest, AListOfUsagesIsAllOrNothing)
{
    store.Change(Total(10, "Q"));
    EXPECT_FALSE(manager.ReserveForConsumer("A", {Units("R", 50), Units("Q", 11)}));
    EXPECT_EQ(store.Read("Resources*"), Total(10, "Q"));
    EXPECT_EQ(manager.GetUsed("A", "R"), 0);
    EXPECT_TRUE(manager.ReserveForConsumer("A", {Units("R", 50), Share("Q", 0.5)}));
    EXPECT_EQ(store.Read("Resources*"), Total(10, "Q") + Consumer("A", 5, "Q") + Consumer("A", 50));
}

TEST_P(ResourceManagerTest, OfAResourceThatIsListedTwiceTheLaterAmountCounts)
{
    EXPECT_TRUE(manager.ReserveForConsumer("A", {Units("R", 90), Units("R", 20)}));
    EXPECT_EQ(store.Read("Resources*"), Consumer("A", 20));
    EXPECT_FALSE(manager.ReserveForConsumer("A", {Units("R", 101), Units("R", 20)}));
}

TEST_P(ResourceManagerTest, AnEmptyListSucceedsAndWritesNothing)
{
    EXPECT_TRUE(manager.ReserveForConsumer("A", {}));
    store.Change(Consumer("B", 1));
    EXPECT_EQ(manager.GetUsed("B", "R"), 1);
    store.Change(Consumer("B", 2));
    EXPECT_TRUE(manager.ReserveForConsumer("A", {}));
    EXPECT_EQ(manager.GetUsed("B", "R"), 2) << "the attempt that failed has read everything again";
    EXPECT_EQ(store.Read("Resources*"), Consumer("B", 2));
}

TEST_P(ResourceManagerTest, GettersAnswerFromTheCacheUntilARefresh)
{
    store.Change(Consumer("A", 1));
    EXPECT_EQ(manager.GetUsed("A", "R"), 1);
    store.Change(Total(50) + Consumer("A", 2) + Consumer("B", 3) + "[Resources/R/AllowedConsumers]\n1=B\n");
    EXPECT_EQ(manager.GetUsed("A", "R"), 1);
    EXPECT_EQ(manager.GetTotal("R"), 100);
    EXPECT_EQ(manager.GetAvailable("A", "R"), 100);
    EXPECT_TRUE(manager.IsAuthorized("A", "R"));
    manager.Refresh();
    EXPECT_EQ(manager.GetUsed("A", "R"), 2);
    EXPECT_EQ(manager.GetTotal("R"), 50);
    EXPECT_EQ(manager.GetAvailable("B", "R"), 48);
    EXPECT_FALSE(manager.IsAuthorized("A", "R"));
}

TEST_P(ResourceManagerTest, ARefreshForgetsWhatWasErased)
{
    store.Change(Total(50) + Consumer("A", 2));
    EXPECT_EQ(manager.GetTotal("R"), 50);
    store.Erase("Resources*");
    manager.Refresh();
    EXPECT_EQ(manager.GetTotal("R"), 100);
    EXPECT_EQ(manager.GetUsed("A", "R"), 0);
}

TEST_P(ResourceManagerTest, AReservationOverStaleFiguresIsComputedAnew)
{
    store.Change(Consumer("B", 0));
    EXPECT_EQ(manager.GetAvailable("A", "R"), 100);
    store.Change(Consumer("B", 70));
    EXPECT_FALSE(manager.ReserveResource("A", "R", 31)) << "the figures that it would have fitted are out of date";
    EXPECT_EQ(manager.GetAvailable("A", "R"), 30);
    store.Change(Consumer("B", 60));
    EXPECT_TRUE(manager.ReserveResource("A", "R", 30)) << "anything that was read must still be the same";
    EXPECT_EQ(manager.GetAvailable("A", "R"), 40);
}

TEST_P(ResourceManagerTest, OfTwoManagersTheSlowerGetsWhatIsLeftOrNothing)
{
    store.Change(Consumer("A", 0) + Consumer("B", 0));
    ResourceManager other(&store.Other());
    EXPECT_EQ(manager.GetAvailable("A", "R"), 100);
    EXPECT_EQ(other.GetAvailable("B", "R"), 100);
    EXPECT_TRUE(other.ReserveResource("B", "R", 60));
    EXPECT_FALSE(manager.ReserveResource("A", "R", 60));
    EXPECT_TRUE(manager.ReserveResource("A", "R", 40));
    EXPECT_EQ(store.Read("Resources*"), Consumer("A", 40) + Consumer("B", 60));
}

TEST_P(ResourceManagerTest, AConsumerThatAppearsAfterTheReadingIsNotSeen)
{
    ResourceManager other(&store.Other());
    EXPECT_EQ(manager.GetAvailable("A", "R"), 100);
    EXPECT_EQ(other.GetAvailable("B", "R"), 100);
    EXPECT_TRUE(other.ReserveResource("B", "R", 60));
    EXPECT_TRUE(manager.ReserveResource("A", "R", 60)) << "nothing that was read has changed";
    EXPECT_EQ(manager.GetAvailable("A", "R"), 100);
    manager.Refresh();
    EXPECT_EQ(manager.GetAvailable("A", "R"), 40);
}

TEST_P(ResourceManagerTest, AConsumerWhoseGroupHoldsNoUsageWhenItIsReadIsNotSeenEither)
{
    store.Change("[Resources/R/Consumers/B]\nMaxAllowed=90\n");
    EXPECT_EQ(manager.GetAvailable("A", "R"), 100);
    store.Change(Consumer("B", 60));
    EXPECT_TRUE(manager.ReserveResource("A", "R", 60)) << "the cap that was read is still the same";
    store.Change(Consumer("B", 61));
    EXPECT_TRUE(manager.ReserveResource("A", "R", 50));
    manager.Refresh();
    store.Change(Consumer("B", 40));
    EXPECT_FALSE(manager.ReserveResource("A", "R", 61)) << "what is there when it is read is seen";
}

TEST_P(ResourceManagerTest, TwoManagersThatCompeteNeverExceedTheTotal)
{
    constexpr int rounds = 40;
    store.Change(Total(10) + Consumer("A", 0) + Consumer("B", 0));
    const auto compete = [](KorloSettingsClient& client, const std::string& name) {
        ResourceManager competitor(&client);
        int successes = 0;
        for (int round = 0; round < rounds; ++round)
        {
            competitor.Refresh();
            successes += competitor.ReserveResource(name, "R", 7) ? 1 : 0;
            EXPECT_LE(competitor.GetUsed("A", "R") + competitor.GetUsed("B", "R"), 10);
            EXPECT_TRUE(competitor.ReserveResource(name, "R", 0));
        }
        return successes;
    };
    auto others = std::async(std::launch::async, [&] { return compete(store.Other(), "B"); });
    const int mine = compete(store.Client(), "A");
    EXPECT_GT(mine + others.get(), 0);
    EXPECT_EQ(store.Read("Resources*"), Total(10) + Consumer("A", 0) + Consumer("B", 0));
}

TEST_P(ResourceManagerTest, ADestroyedManagerLeavesTheStoreAsItIs)
{
    {
        ResourceManager other(&store.Client());
        EXPECT_TRUE(other.ReserveResource("A", "R", 20));
    }
    EXPECT_EQ(store.Read("Resources*"), Consumer("A", 20));
}

TEST_P(ResourceManagerTest, NamesAreFreeStrings)
{
    EXPECT_TRUE(manager.ReserveResource("a consumer = 1; #", " R [x] ", 20));
    manager.Refresh();
    EXPECT_EQ(manager.GetUsed("a consumer = 1; #", " R [x] "), 20);
    EXPECT_EQ(manager.GetAvailable("B", " R [x] "), 80);
}

TEST_P(ResourceManagerTest, WhatTheClientThrowsPassesOut)
{
    if (GetParam() == Mode::Local)
    {
        EXPECT_TRUE(manager.ReserveResource("A", "R\nquit", 1)) << "no line of a connection carries the name";
        return;
    }
    const std::string refusal =
        "Group name 'Resources/R\nquit*' cannot be sent: it is a full stop or holds a line break";
    EXPECT_EQ(MessageOf([this] { manager.GetTotal("R\nquit"); }), refusal);
    EXPECT_EQ(MessageOf([this] { manager.ReserveResource("A", "R\nquit", 1); }), refusal);
    EXPECT_EQ(manager.GetTotal("R"), 100) << "the manager goes on";
    manager.Refresh();
}

INSTANTIATE_TEST_SUITE_P(Modes, ResourceManagerTest,
                         testing::Values(Mode::MultiThreaded, Mode::SingleThreaded, Mode::Local,
                                         Mode::LocalSingleThreaded, Mode::LocalMultiThreaded),
                         NameOfMode);

TEST(ResourceManagerConstructionTest, ANullClientIsRefused)
{
    EXPECT_EQ(MessageOf([] { ResourceManager manager(nullptr); }), "client was NULL");
}

}  // namespace
}  // namespace korlo::settings
