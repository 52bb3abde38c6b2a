// What the resource manager asks the server for.

#include <algorithm>
#include <future>
#include <string>
#include <vector>

#include <gmock/gmock.h>

#include "settings/KorloSettingsClient.h"
#include "settings/RefusedException.h"
#include "settings/ResourceManager.h"
#include "support/Files.h"
#include "support/ScriptedServer.h"

namespace korlo::settings
{
namespace
{

using Mode = KorloSettingsClient::OperationMode;

std::string Consumer(const std::string& name, int used, const std::string& resource = "R")
{
    return "[Resources/" + resource + "/Consumers/" + name + "]\nCurrentlyUsed=" + std::to_string(used) + '\n';
}

std::string Total(int total, const std::string& resource = "R")
{
    return "[Resources/" + resource + "]\nTotalAvailable=" + std::to_string(total) + '\n';
}

/// One request as it is expected, and what it is answered with.
struct Exchange
{
    std::string request;
    std::string response;
};

/// The manager over a server that plays exchanges, and the requests that it heard.
class ResourceManagerWireTest : public testing::Test
{
protected:
    void Play(const std::vector<Exchange>& exchanges)
    {
        _player = std::async(std::launch::async, [this, exchanges] {
            const auto pPeer = _server.Accept();
            for (const Exchange& exchange : exchanges)
            {
                const auto lines = std::count(exchange.request.begin(), exchange.request.end(), '\n');
                EXPECT_EQ(pPeer->Read(static_cast<int>(lines)), exchange.request);
                pPeer->Send(exchange.response);
            }
            EXPECT_TRUE(pPeer->MeetsTheEnd()) << "there are more requests";
        });
    }

    ScriptedServer _server;
    std::future<void> _player;
    KorloSettingsClient _client{Mode::SingleThreaded};
};

constexpr const char* GetR = "get delimited\nResources/R*\n.\n";
constexpr const char* Ok = "result\nok\n";
constexpr const char* Failure = "result\nfailure\n";

TEST_F(ResourceManagerWireTest, TheReadBringsInLongerNamesAndTheTestCoversThem)
{
    const std::string all = Total(50) + Total(9, "R2") + Consumer("X", 9, "R2");
    Play({{GetR, "data\n" + all + ".\n"}, {"test-and-merge\n" + all + ".\n" + Consumer("A", 50) + ".\n", Ok}});
    ResourceManager manager(&_client);
    EXPECT_TRUE(manager.ReserveResource("A", "R", 50)) << "the units of the other resource do not count";
}

TEST_F(ResourceManagerWireTest, AResourceIsReadOnceAndTheTestCoversAllOfThem)
{
    Play({{GetR, "data\n" + Total(50) + ".\n"},
          {"get delimited\nResources/Q*\n.\n", "data\n" + Total(9, "Q") + ".\n"},
          {"test-and-merge\n" + Total(9, "Q") + Total(50) + ".\n" + Consumer("A", 5, "Q") + ".\n", Ok},
          {"get delimited\nResources/Q*\n.\n", "data\n.\n"},
          {GetR, "data\n.\n"}});
    ResourceManager manager(&_client);
    EXPECT_EQ(manager.GetTotal("R"), 50);
    EXPECT_EQ(manager.GetAvailable("A", "R"), 50);
    EXPECT_TRUE(manager.IsAuthorized("A", "R"));
    EXPECT_EQ(manager.GetUsed("A", "R"), 0);
    EXPECT_EQ(manager.GetAvailablePercent("A", "R"), 1.0);
    EXPECT_TRUE(manager.ReserveResource("A", "Q", 5));
    EXPECT_EQ(manager.GetUsed("A", "Q"), 5);
    manager.Refresh();
    EXPECT_EQ(manager.GetTotal("R"), 100);
    EXPECT_EQ(manager.GetTotal("Q"), 100);
}

TEST_F(ResourceManagerWireTest, AfterTheFirstUseAReservationTakesOneRoundTripAndTwoWithARefresh)
{
    const std::string others = Total(50) + Consumer("B", 5);
    const std::string held = Total(50) + Consumer("A", 7) + Consumer("B", 5);
    Play({{GetR, "data\n" + others + ".\n"},
          {"test-and-merge\n" + others + ".\n" + Consumer("A", 7) + ".\n", Ok},
          {"test-and-merge\n" + held + ".\n" + Consumer("A", 7) + ".\n", Ok},
          {GetR, "data\n" + held + ".\n"},
          {"test-and-merge\n" + held + ".\n" + Consumer("A", 0) + ".\n", Ok}});
    ResourceManager manager(&_client);
    EXPECT_EQ(manager.GetUsed("A", "R"), 0);
    EXPECT_TRUE(manager.ReserveResource("A", "R", 7));
    EXPECT_TRUE(manager.ReserveResource("A", "R", 7));
    manager.Refresh();
    EXPECT_TRUE(manager.ReserveResource("A", "R", 0));
}

TEST_F(ResourceManagerWireTest, AttemptsGoOnUntilOneSucceeds)
{
    std::vector<Exchange> exchanges;
    for (int used = 0; used < 30; ++used)
    {
        exchanges.push_back({GetR, "data\n" + Consumer("B", used) + ".\n"});
        exchanges.push_back(
            {"test-and-merge\n" + Consumer("B", used) + ".\n" + Consumer("A", 50) + ".\n", used == 29 ? Ok : Failure});
    }
    Play(exchanges);
    ResourceManager manager(&_client);
    EXPECT_TRUE(manager.ReserveResource("A", "R", 50));
    EXPECT_EQ(manager.GetAvailable("A", "R"), 71);
}

TEST_F(ResourceManagerWireTest, AttemptsEndWhenAUsageFails)
{
    Play({{GetR, "data\n.\n"},
          {"test-and-merge\n.\n" + Consumer("A", 50) + ".\n", Failure},
          {GetR, "data\n" + Consumer("B", 51) + ".\n"}});
    ResourceManager manager(&_client);
    EXPECT_FALSE(manager.ReserveResource("A", "R", 50));
    EXPECT_EQ(manager.GetAvailable("A", "R"), 49) << "the cache is as it was read";
    EXPECT_FALSE(manager.ReserveResource("A", "R", 50)) << "and so nothing more is asked";
}

constexpr const char* GetRefused = "get delimited\nKorloSettings/Trusted/Refused\n.\n";

std::string Refusal(const std::string& operation, const std::string& group)
{
    return "data\n[KorloSettings/Trusted/Refused]\ngroup.1=" + group + "\noperation=" + operation + "\n.\n";
}

TEST_F(ResourceManagerWireTest, ARefusedReservationThrowsAndLeavesTheManagerUsable)
{
    const std::string settings = Total(50) + Consumer("A", 1);
    const Exchange read{GetR, "data\n" + settings + ".\n"};
    const Exchange refused{"test-and-merge\n" + settings + ".\n" + Consumer("A", 50) + ".\n", Failure};
    Play({read,
          refused,
          read,
          {GetRefused, Refusal("test-and-merge", "Resources/R/Consumers/A")},
          {"test-and-merge\n" + settings + ".\n" + Consumer("A", 2) + ".\n", Ok}});
    ResourceManager manager(&_client);
    try
    {
        manager.ReserveResource("A", "R", 50);
        ADD_FAILURE() << "it was not refused";
    }
    catch (const RefusedException& refusal)
    {
        EXPECT_EQ(refusal.GetGroups(), GroupNameCollection{"Resources/R/Consumers/A"});
        EXPECT_STREQ(refusal.what(), "The settings server refused 'test-and-merge': its access rules do not allow it "
                                     "to this client for 'Resources/R/Consumers/A'");
    }
    EXPECT_EQ(manager.GetUsed("A", "R"), 1);
    EXPECT_TRUE(manager.ReserveResource("A", "R", 2)) << "the figures are known";
}

TEST_F(ResourceManagerWireTest, ARefusalOfATestedGroupThrowsToo)
{
    const Exchange read{GetR, "data\n" + Total(50) + ".\n"};
    Play({read,
          {"test-and-merge\n" + Total(50) + ".\n" + Consumer("A", 5) + ".\n", Failure},
          read,
          {GetRefused, Refusal("test-and-merge", "Resources/R")}});
    ResourceManager manager(&_client);
    EXPECT_NE(MessageOf([&] { manager.ReserveResource("A", "R", 5); }), "");
}

TEST_F(ResourceManagerWireTest, AttemptsGoOnWhereNothingOrSomethingElseWasRefused)
{
    const Exchange read{GetR, "data\n.\n"};
    const std::string attempt = "test-and-merge\n.\n" + Consumer("A", 5) + ".\n";
    Play({read,
          {attempt, Failure},
          read,
          {GetRefused, "data\n.\n"},
          {attempt, Failure},
          read,
          {GetRefused, Refusal("test-and-merge", "Other")},
          {attempt, Failure},
          read,
          {GetRefused, Refusal("merge", "Resources/R/Consumers/A")},
          {attempt, Ok}});
    ResourceManager manager(&_client);
    EXPECT_TRUE(manager.ReserveResource("A", "R", 5));
}

TEST_F(ResourceManagerWireTest, AFractionIsComputedAnewWithEachAttempt)
{
    Play({{GetR, "data\n" + Total(10) + ".\n"},
          {"test-and-merge\n" + Total(10) + ".\n" + Consumer("A", 5) + ".\n", Failure},
          {GetR, "data\n" + Total(20) + ".\n"},
          {"test-and-merge\n" + Total(20) + ".\n" + Consumer("A", 10) + ".\n", Ok}});
    ResourceManager manager(&_client);
    EXPECT_TRUE(manager.ReserveForConsumer("A", {{"R", true, 0, 0.5}}));
}

}  // namespace
}  // namespace korlo::settings
