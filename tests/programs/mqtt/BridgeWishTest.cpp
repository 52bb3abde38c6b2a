// What the fleet wants, and what becomes of it.

#include <filesystem>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/BridgeScene.h"

namespace korlo
{
namespace
{

using testing::ContainsRegex;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

class BridgeWishTest : public BridgeScene
{
protected:
    /// A wish that is not retained.
    void Say(const std::string& level, const std::string& payload)
    {
        Fleet().Forget();
        Fleet().Publish(Topic(level, "desired"), payload);
    }
};

TEST_F(BridgeWishTest, AMergedWishIsAcceptedAndReported)
{
    StartAll("[A]\nk=1\nkept=1\n");
    Wish("A", R"({"k":"2","new":"3"})", 7);
    AwaitAccepted("A", 7);
    Fleet().Await(Reported("A"), R"({"state":{"k":"2","kept":"1","new":"3"})");
    EXPECT_EQ(Value("A", "k"), "2");
    EXPECT_EQ(Value("KorloSettings/Fleet", "A"), "7");
}

TEST_F(BridgeWishTest, AReplacementTakesTheOtherKeysAway)
{
    StartAll("[A]\nk=1\ngone=1\n");
    Wish("A", R"({"k":"2"})", 7, "replace");
    AwaitAccepted("A", 7);
    Fleet().Await(Reported("A"), R"({"state":{"k":"2"})");
    Wish("A", "{}", 8, "replace");
    AwaitAccepted("A", 8);
    Fleet().AwaitCleared(Reported("A"));
}

TEST_F(BridgeWishTest, AGroupThatIsNotThereIsMade)
{
    StartAll("[A]\nk=1\n");
    Wish("New%2FGroup", R"({"k":"1"})", 1);
    AwaitAccepted("New%2FGroup", 1);
    Fleet().Await(Reported("New%2FGroup"), R"({"state":{"k":"1"})");
}

TEST_F(BridgeWishTest, OneVersionIsAppliedOnceAndALowerOneNever)
{
    StartAll("[A]\nk=1\n");
    Wish("A", R"({"k":"5"})", 5);
    AwaitAccepted("A", 5);
    Set("A", "k", "local");
    Fleet().Forget();
    Wish("A", R"({"k":"5"})", 5);
    Wish("A", R"({"k":"4"})", 4);
    EXPECT_THAT(AwaitRejected("A", 409), HasSubstr(R"("applied":5)"));
    EXPECT_FALSE(Fleet().Has(Topic("A", "desired/accepted")));
    EXPECT_EQ(Value("A", "k"), "local");
    Wish("A", R"({"k":"6"})", 6);
    AwaitAccepted("A", 6);
    EXPECT_EQ(Value("A", "k"), "6");
}

TEST_F(BridgeWishTest, WhatTurnedAKnobMeanwhileStaysTurned)
{
    // The room is cold, the fleet's wish is applied, somebody turns the knob, and the network comes and goes.
    StartAll("[Room]\ntemperature=17\n");
    Wish("Room", R"({"temperature":"18"})", 1);
    AwaitAccepted("Room", 1);
    Set("Room", "temperature", "22");
    Fleet().Await(Reported("Room"), R"("temperature":"22")");
    _pFleet.reset();
    _broker.End();
    _broker.Start();
    AwaitBridge();
    EXPECT_EQ(Value("Room", "temperature"), "22");
}

TEST_F(BridgeWishTest, ADeviceThatWasOffCatchesUp)
{
    StartServer("[A]\nk=1\n[B]\nk=1\n");
    Wish("A", R"({"k":"1"})", 1);
    Wish("A", R"({"k":"9"})", 9);
    Wish("B", R"({"k":"4"})", 4, "replace");
    StartBridge();
    AwaitAccepted("A", 9);
    AwaitAccepted("B", 4);
    Fleet().Await(Reported("A"), R"("k":"9")");
    Fleet().Await(Reported("B"), R"("k":"4")");
    EXPECT_EQ(Fleet().All(Topic("A", "desired/accepted")).size(), 1u);
}

TEST_F(BridgeWishTest, AWishIsAppliedOnceTheSettingsServerIsThere)
{
    StartBridge();
    Fleet().Await(Status(), R"("settings":false)");
    Wish("A", R"({"k":"9"})", 9);
    StartServer("[A]\nk=1\n");
    AwaitAccepted("A", 9);
    Fleet().Await(Reported("A"), R"("k":"9")");
}

TEST_F(BridgeWishTest, APowerCutSeparatesNothing)
{
    StartAll("[A]\nk=1\n");
    for (unsigned long version = 1; version <= 4; ++version)
    {
        Wish("A", R"({"k":")" + std::to_string(version) + "\"}", version, version % 2 == 0 ? "merge" : "replace");
        if (version % 3 == 0)
        {
            AwaitAccepted("A", version);
        }
        EndServer(SIGKILL);
        core::IniFile user;
        if (ContentOf(PathOf("user.ini")))
        {
            user.Load(PathOf("user.ini").c_str());
        }
        EXPECT_EQ(user.GetValueOrDefault("A", "k"), user.GetValueOrDefault("KorloSettings/Fleet", "A"));
        StartServer();
    }
    Fleet().Await(Reported("A"), R"("k":"4")");
    EXPECT_EQ(Value("KorloSettings/Fleet", "A"), "4");
}

TEST_F(BridgeWishTest, ARestartOfTheSettingsServerIsNoFailure)
{
    StartAll("[A]\nk=1\n");
    Wish("A", R"({"k":"2"})", 1);
    AwaitAccepted("A", 1);
    EndServer();
    Fleet().Await(Status(), R"("settings":false)");
    StartServer();
    Fleet().Await(Status(), R"("settings":true)");
    Wish("A", R"({"k":"3"})", 2);
    AwaitAccepted("A", 2);
    Fleet().Await(Reported("A"), R"("k":"3")");
    EXPECT_EQ(_pBridge->End(), 0);
    // A reading of the settings that the end of the server cuts off is information.
    EXPECT_THAT(_pBridge->GetChild().GetErrors(), Not(ContainsRegex("(Warning|Error)[^\n]*trying again")));
}

struct RefusalRow
{
    const char* level;
    std::string payload;
    int code;
    const char* text;
};

TEST_F(BridgeWishTest, WhatIsRefusedIsToldWhy)
{
    StartServer("[A]\nk=1\n[Private]\nk=1\n");
    StartBridge("[Report]\ngroups=*\n[Accept]\ngroups=A*, *Secure*, KorloSettings/*, B\n");
    AwaitBridge();
    const std::string fine = R"({"state":{"k":"2"},"version":7})";
    const std::vector<RefusalRow> rows = {
        {"A", "rubbish", 400, R"("version":null)"},
        {"A", R"({"state":{"k":2},"version":7})", 400, R"("version":7)"},
        {"%41", fine, 400, "is the form of no group's name"},
        {"A%2A", R"({"state":{"k":"2"},"version":7,"mode":"replace"})", 400, "cannot be replaced"},
        {"Private", fine, 403, R"("version":7,"code":403,"message":"the device does not accept)"},
        {"DeviceSecure", fine, 403, "does not accept"},
        {"KorloSettings%2FFleet", fine, 403, "does not accept"},
        {"A", std::string(256 * 1024 + 1, ' '), 413, "larger than 262144 bytes"},
    };
    for (const RefusalRow& row : rows)
    {
        SCOPED_TRACE(std::string(row.level) + ' ' + row.payload.substr(0, 80));
        Say(row.level, row.payload);
        EXPECT_THAT(AwaitRejected(row.level, row.code), HasSubstr(row.text));
    }
    EXPECT_EQ(Value("A", "k"), "1");
    EXPECT_EQ(Value("Private", "k"), "1");
    EXPECT_EQ(Value("KorloSettings/Fleet", "A"), "");

    // The largest that is none too large.
    std::string largest = R"({"state":{"k":""},"version":7})";
    largest.insert(largest.find("\"}"), 256 * 1024 - largest.size(), 'x');
    Say("A", largest);
    AwaitAccepted("A", 7);
}

TEST_F(BridgeWishTest, AnEmptyWishIsNone)
{
    StartAll("[A]\nk=1\n");
    Fleet().Publish(Topic("A", "desired"), "");
    AwaitBridge();
    EXPECT_THAT(Fleet().All(Topic("A", "desired/rejected")), IsEmpty());
}

TEST_F(BridgeWishTest, WhatTheAccessRulesForbidIsRefused)
{
    WriteFile(PathOf("access.ini"), "[Access/all]\nread=*\nchange=A,KorloSettings/Fleet\n");
    if (::geteuid() == 0)
    {
        // Root may do everything: so the bridge comes by TCP, as nobody in particular.
        StartServer("[A]\nk=1\n[B]\nk=1\n", {"--access", PathOf("access.ini")});
        WriteFile(PathOf("mqtt.ini"), "[Broker]\nhost=127.0.0.1\nport=" + std::to_string(_broker.GetPort()) +
                                          "\n[Device]\nname=panel\n[Settings]\naddress=127.0.0.1:" +
                                          std::to_string(_pServer->GetPort()) + '\n' + Everything);
        _pBridge = std::make_unique<BridgeProcess>(PathOf("mqtt.ini"));
    }
    else
    {
        StartServer("[A]\nk=1\n[B]\nk=1\n", {"--access", PathOf("access.ini")});
        StartBridge();
    }
    AwaitBridge();
    Wish("B", R"({"k":"2"})", 1);
    EXPECT_THAT(AwaitRejected("B", 403), HasSubstr("do not allow the bridge to change 'B'"));
    Wish("B", R"({"k":"2"})", 2, "replace");
    Fleet().Await(Topic("B", "desired/rejected"), R"("version":2,"code":403)");
    Wish("A", R"({"k":"2"})", 1);
    AwaitAccepted("A", 1);
    EXPECT_EQ(Value("B", "k"), "1");
}

TEST_F(BridgeWishTest, AWishThatCannotBeSavedIsTriedUntilItIs)
{
    std::filesystem::create_directory(PathOf("disk"));
    StartServer("[A]\nk=1\n", {"--user", PathOf("disk/user.ini")});
    StartBridge();
    AwaitBridge();
    std::filesystem::rename(PathOf("disk"), PathOf("away"));  // as a full disk, for whoever saves
    Wish("A", R"({"k":"2"})", 5);
    _pBridge->AwaitLog("A wish for 'A' could not be applied: ");
    EXPECT_FALSE(Fleet().Has(Topic("A", "desired/accepted")));
    std::filesystem::rename(PathOf("away"), PathOf("disk"));
    AwaitAccepted("A", 5);
    core::IniFile user(PathOf("disk/user.ini").c_str());
    EXPECT_EQ(user.GetValueOrDefault("A", "k"), "2");
    EXPECT_EQ(user.GetValueOrDefault("KorloSettings/Fleet", "A"), "5");
}

TEST_F(BridgeWishTest, RefusalsAreBounded)
{
    StartAll("[A]\nk=1\n");
    Fleet().Forget();
    const auto begin = std::chrono::steady_clock::now();
    constexpr int wishes = 1000;
    for (int count = 0; count < wishes; ++count)
    {
        Fleet().Send(Topic("A", "desired"), "rubbish");
    }
    Fleet().Send(Topic("A", "desired"), WishPayload(R"({"k":"2"})", 1));
    AwaitAccepted("A", 1);
    const std::chrono::duration<double> duration = std::chrono::steady_clock::now() - begin;
    const auto refusals = static_cast<double>(Fleet().All(Topic("A", "desired/rejected")).size());
    EXPECT_GE(refusals, 50);
    EXPECT_LE(refusals, 100 + 20 * duration.count() + 1);
}

TEST_F(BridgeWishTest, MoreWishesThanFitIntoMemoryAllHaveTheirTurn)
{
    StartServer("[A]\nk=1\n");
    constexpr int wishes = 40;  // ten megabytes
    for (int count = 0; count < wishes; ++count)
    {
        Fleet().Publish(Topic("W" + std::to_string(count), "desired"), std::string(255 * 1024, 'x'),
                        MqttClient::Retained);
    }
    Fleet().Forget();
    StartBridge();
    for (int count = 0; count < wishes; ++count)
    {
        AwaitRejected("W" + std::to_string(count), 400);
    }
}

TEST_F(BridgeWishTest, MoreWishesThanABrokerQueuesAllHaveTheirTurn)
{
    StartServer("[A]\nk=1\n", {"--save-delay", "1000"});
    constexpr int wishes = 1100;
    for (int count = 0; count < wishes; ++count)
    {
        Fleet().Send(Topic("W" + std::to_string(count), "desired"), WishPayload(R"({"k":"1"})", 1),
                     MqttClient::Retained);
    }
    Fleet().CatchUp();
    Fleet().Forget();
    StartBridge();
    Fleet().WaitUntil(
        [this] {
            int accepted = 0;
            for (const MqttClient::Message& message : Fleet().GetMessages())
            {
                accepted += message.topic.ends_with("/accepted") ? 1 : 0;
            }
            return accepted == wishes;
        },
        "for all wishes");
}

}  // namespace
}  // namespace korlo
