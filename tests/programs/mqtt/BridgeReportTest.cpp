// What the bridge tells the broker of the settings.

#include <chrono>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/BridgeScene.h"
#include "support/Rounds.h"

namespace korlo
{
namespace
{

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

class BridgeReportTest : public BridgeScene
{
protected:
    /// The names of the groups of which the broker holds a report.
    std::vector<std::string> Held()
    {
        MqttClient onlooker(_broker.GetPort(), "korlo/1/panel/group/+/reported");
        onlooker.CatchUp();
        std::vector<std::string> topics;
        for (const MqttClient::Message& message : onlooker.GetMessages())
        {
            topics.push_back(message.topic.substr(std::string("korlo/1/panel/group/").size()));
        }
        std::sort(topics.begin(), topics.end());
        return topics;
    }
};

TEST_F(BridgeReportTest, TellsAllThatIsToBeReportedAndNothingElse)
{
    WriteFile(PathOf("restricted.ini"), "[Net/Secure]\nkey=sesame\n");
    StartServer("[Audio]\nvolume=3\nmuted=no\n[Net/eth0]\nmode=dhcp\n[Net/wlan0]\nmode=off\n[Time]\nzone=UTC\n",
                {"--restricted", PathOf("restricted.ini")});
    StartBridge("[Report]\ngroups=Net/*, Audio, KorloSettings/*\n[Accept]\ngroups=Audio\n");
    AwaitBridge();
    Fleet().Await(Reported("Net%2Fwlan0"));
    Wish("Audio", R"({"volume":"4"})", 1);
    AwaitAccepted("Audio", 1);  // there is a group KorloSettings/Fleet now
    Fleet().Await(Reported("Audio"), R"("volume":"4")");
    EXPECT_THAT(Held(), ElementsAre("Audio/reported", "Net%2Feth0/reported", "Net%2Fwlan0/reported"));
    for (const MqttClient::Message& message : Fleet().GetMessages())
    {
        EXPECT_THAT(message.payload, Not(HasSubstr("sesame")));
    }
}

TEST_F(BridgeReportTest, AReportIsRetainedAndCountsItsVersions)
{
    StartAll("[A]\nk=1\n");
    EXPECT_THAT(Fleet().Await(Reported("A")), StartsWith(R"({"state":{"k":"1"},"version":1,"timestamp":1)"));
    Set("A", "k", "2");
    EXPECT_THAT(Fleet().Await(Reported("A"), R"("k":"2")"),
                StartsWith(R"({"state":{"k":"2"},"version":2,"timestamp":)"));
    EXPECT_THAT(Held(), ElementsAre("A/reported"));
}

TEST_F(BridgeReportTest, ManyChangesAreFewMessagesAndTheLastOneCounts)
{
    StartServer("[A]\nk=0\n", {"--save-delay", "1000"});
    StartBridge();
    AwaitBridge();
    Fleet().Await(Reported("A"));
    Fleet().Forget();
    const auto begin = std::chrono::steady_clock::now();
    const int last = static_cast<int>(Rounds(500));
    for (int count = 1; count <= last; ++count)
    {
        Set("A", "k", std::to_string(count));
    }
    const std::chrono::duration<double> duration = std::chrono::steady_clock::now() - begin;
    Fleet().Await(Reported("A"), R"("k":")" + std::to_string(last) + '"');
    EXPECT_LE(static_cast<double>(Fleet().All(Reported("A")).size()), duration.count() * 10 + 2);
}

TEST_F(BridgeReportTest, AChangeBackToWhatTheBrokerHoldsIsNoMessage)
{
    StartAll("[A]\nk=1\n[B]\nk=1\n");
    Fleet().Await(Reported("B"));
    Fleet().CatchUp();
    Fleet().Forget();
    Set("A", "k", "1");
    Set("B", "k", "2");
    Fleet().Await(Reported("B"));
    EXPECT_THAT(Fleet().All(Reported("A")), IsEmpty());
}

TEST_F(BridgeReportTest, AnErasedGroupIsCleared)
{
    StartAll("[A]\nk=1\n[B]\nk=1\n");
    Fleet().Await(Reported("B"));
    Device().EraseGroups("A");
    Fleet().AwaitCleared(Reported("A"));
    EXPECT_THAT(Held(), ElementsAre("B/reported"));
    Set("A", "k", "2");
    EXPECT_THAT(Fleet().Await(Reported("A"), "state"), HasSubstr(R"("k":"2")"));
}

TEST_F(BridgeReportTest, GhostsAreClearedAtTheConnection)
{
    const std::string report = R"({"state":{"k":"1"},"version":9,"timestamp":1})";
    for (const char* level : {"Gone", "NotReported", "%41", "KorloSettings%2FFleet", "DeviceSecure"})
    {
        Fleet().Publish(Reported(level), report, MqttClient::Retained);
    }
    StartAll("[A]\nk=1\n[NotReported]\nk=1\n", "[Report]\ngroups=A,Gone,KorloSettings/*,Device*\n");
    for (const char* level : {"Gone", "NotReported", "%41", "KorloSettings%2FFleet", "DeviceSecure"})
    {
        Fleet().AwaitCleared(Reported(level));
    }
    Fleet().Await(Reported("A"));
    EXPECT_THAT(Held(), ElementsAre("A/reported"));
}

TEST_F(BridgeReportTest, VersionsGoOnAndWhatIsUnchangedIsNotSentAgain)
{
    StartAll("[A]\nk=1\n[B]\nk=1\n");
    Fleet().Await(Reported("A"));
    Fleet().Await(Reported("B"));
    EXPECT_EQ(_pBridge->End(), 0);
    Set("A", "k", "2");
    Fleet().Forget();
    StartBridge();
    EXPECT_THAT(Fleet().Await(Reported("A")), HasSubstr(R"({"k":"2"},"version":2)"));
    AwaitBridge();
    EXPECT_THAT(Fleet().All(Reported("B")), IsEmpty());
    EXPECT_EQ(Fleet().All(Reported("A")).size(), 1u);
}

TEST_F(BridgeReportTest, RubbishAtTheBrokerIsReplaced)
{
    Fleet().Publish(Reported("A"), "rubbish", MqttClient::Retained);
    Fleet().Publish(Reported("B"), R"({"state":{"k":7},"version":41,"timestamp":1})", MqttClient::Retained);
    StartAll("[A]\nk=1\n[B]\nk=1\n");
    Fleet().Await(Reported("A"), R"({"state":{"k":"1"},"version":1,)");
    Fleet().Await(Reported("B"), R"({"state":{"k":"1"},"version":42,)");
}

TEST_F(BridgeReportTest, WhatChangesWhileTheBrokerIsAwayIsToldOnce)
{
    StartAll("[A]\nk=1\n[B]\nk=1\n[C]\nk=1\n");
    Fleet().Await(Reported("A"));
    Fleet().Await(Reported("B"));
    Fleet().Await(Reported("C"));
    _pFleet.reset();
    _broker.End();
    for (int count = 0; count < 50; ++count)
    {
        Set("A", "k", std::to_string(count));
    }
    Device().EraseGroups("B");
    _broker.Start();
    MqttClient fleet(_broker.GetPort());
    fleet.Await(Reported("A"), R"("k":"49")");
    fleet.WaitUntil([&] { return !fleet.All(Reported("B")).empty() && fleet.Last(Reported("B")).empty(); }, "for B");
    EXPECT_EQ(fleet.All(Reported("A")).size(), 2u);  // what was held, and the new one
    EXPECT_EQ(fleet.All(Reported("C")).size(), 1u);
    EXPECT_THAT(fleet.Last(Reported("A")), HasSubstr(R"("version":2)"));
}

TEST_F(BridgeReportTest, ABrokerThatForgotEverythingIsToldAgain)
{
    StartAll("[A]\nk=1\n[B]\nk=1\n");
    Fleet().Await(Reported("B"));
    _pFleet.reset();
    _broker.End(SIGKILL);
    _broker.Start();
    Fleet().Await(Reported("A"), R"({"state":{"k":"1"})");
    Fleet().Await(Reported("B"), R"({"state":{"k":"1"})");
}

TEST_F(BridgeReportTest, StatusTellsWhetherTheSettingsServerIsThere)
{
    StartBridge();
    Fleet().Await(Status(), R"("settings":false)");
    StartServer("[A]\nk=1\n");
    Fleet().Await(Status(), R"("settings":true)");
    Fleet().Await(Reported("A"), R"("k":"1")");
    EndServer();
    Fleet().Await(Status(), R"("settings":false)");
    WriteFile(PathOf("user.ini"), "[A]\nk=2\n[B]\nk=1\n");
    StartServer();
    Fleet().Await(Status(), R"("settings":true)");
    Fleet().Await(Reported("A"), R"({"state":{"k":"2"},"version":2)");
    Fleet().Await(Reported("B"), R"({"state":{"k":"1"},"version":1)");
}

TEST_F(BridgeReportTest, BytesThatAreNoTextTravelAsBase64)
{
    StartAll("[A]\nk=\"\\xFF\\x00\"\ntext=\"K\xC3\xBC"
             "che\"\n");
    Fleet().Await(Reported("A"), R"({"state":{"k":{"$base64":"/wA="},"text":"Küche"})");
    Wish("A", R"({"k":{"$base64":"AP8="}})", 1);
    AwaitAccepted("A", 1);
    EXPECT_EQ(Value("A", "k"), std::string("\0\xFF", 2));
}

TEST_F(BridgeReportTest, AGroupWithAKeyThatIsNoTextIsNotReported)
{
    StartAll("[A]\n\"\\xFF\"=1\n[B]\nk=1\n");
    Fleet().Await(Reported("B"));
    _pBridge->AwaitLog("Group 'A' is not reported: one of its keys is not UTF-8");
    core::IniFile replacement;
    replacement.SetValue("A", "k", "1");
    Device().OverwriteSettings("A", replacement);
    Fleet().Await(Reported("A"), R"({"state":{"k":"1"},"version":1)");
}

TEST_F(BridgeReportTest, NamesOfAnyBytesAreReported)
{
    StartAll(
        "[A+#/%]\nk=1\n[$SYS]\nk=1\n[\"a\\x00b\"]\nk=1\n[\"\\xFF\"]\nk=1\n[.]\nk=1\n[\"a\\nb\"]\nk=1\n[a*b]\nk=1\n");
    for (const char* level : {"A%2B%23%2F%25", "%24SYS", "a%00b", "%FF", ".", "a%0Ab", "a%2Ab"})
    {
        Fleet().Await(Reported(level), R"({"state":{"k":"1"})");
    }
    for (const char* name : {"A+#/%", "$SYS", "a*b"})
    {
        Set(name, "k", "2");
    }
    for (const char* level : {"A%2B%23%2F%25", "%24SYS", "a%2Ab"})
    {
        Fleet().Await(Reported(level), R"({"state":{"k":"2"})");
    }
    Wish("a%0Ab", R"({"k":"3"})", 1);
    AwaitAccepted("a%0Ab", 1);
}

TEST_F(BridgeReportTest, MoreGroupsThanABrokerQueuesAreAllKnown)
{
    // A mosquitto keeps a thousand messages waiting for a client, and drops the others.
    constexpr int groups = 1500;
    std::string defaults;
    for (int group = 0; group < groups; ++group)
    {
        Fleet().Send(Reported("G" + std::to_string(group)), R"({"state":{"k":"1"},"version":7,"timestamp":1})",
                     MqttClient::Retained);
        defaults += "[G" + std::to_string(group) + "]\nk=1\n";
    }
    Fleet().CatchUp();
    StartAll(defaults);
    Fleet().Forget();
    Set("G77", "k", "2");
    Fleet().Await(Reported("G77"), R"("version":8)");
    EXPECT_EQ(Fleet().GetMessages().size(), 1u);
}

/// A broker that takes small messages alone, in one way or the other.
class SmallBrokerTest : public BridgeReportTest
{
protected:
    void TellOfWhatIsTooLarge()
    {
        StartAll("[A]\nk=1\n[B]\nk=1\n");
        Fleet().Await(Reported("A"));
        Fleet().Await(Reported("B"));
        Set("A", "k", std::string(3000, 'x'));
        _pBridge->AwaitLog("Group 'A' is not reported, until it changes: ");
        Set("B", "k", "2");
        Fleet().Await(Reported("B"), R"("k":"2")");  // nobody else is concerned
        EXPECT_EQ(Fleet().All(Reported("A")).size(), 1u);
        Set("A", "k", "small");
        Fleet().Await(Reported("A"), R"("k":"small")");
    }
};

TEST_F(SmallBrokerTest, AGroupThatIsTooLargeIsNamedAndToldWhenItShrinks)
{
    _broker.End();
    _broker.SetOptions("allow_anonymous true\nmax_packet_size 2000\n");
    _broker.Start();
    TellOfWhatIsTooLarge();
}

TEST_F(SmallBrokerTest, SoIsOneThatTheBrokerRefuses)
{
    _broker.End();
    _broker.SetOptions("allow_anonymous true\nmessage_size_limit 2000\n");
    _broker.Start();
    TellOfWhatIsTooLarge();
}

}  // namespace
}  // namespace korlo
