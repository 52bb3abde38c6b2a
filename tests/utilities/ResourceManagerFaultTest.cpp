// What resource managers and reservers answer after the server went away in the middle of an operation.

#include <algorithm>
#include <future>
#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>

#include "settings/KorloSettingsClient.h"
#include "settings/ResourceManager.h"
#include "settings/ResourceReserver.h"
#include "support/Files.h"
#include "support/LogCapture.h"
#include "support/ScriptedServer.h"

namespace korlo::settings
{
namespace
{

constexpr const char* Lost = "";  // instead of a response: every attempt of the client ends with the connection
constexpr int ClientAttempts = 5;

constexpr const char* Get = "get delimited\nResources/R*\n.\n";
constexpr const char* Ok = "result\nok\n";
constexpr const char* Failure = "result\nfailure\n";
constexpr const char* ConnectFailure = "Failed to connect to korlo-settings-server";

/// A total of 50 that only A may use.
constexpr const char* Known = "[Resources/R]\nTotalAvailable=50\n[Resources/R/AllowedConsumers]\n1=A\n";

std::string Holds(const std::string& consumer, int units)
{
    return "[Resources/R/Consumers/" + consumer + "]\nCurrentlyUsed=" + std::to_string(units) + '\n';
}

std::string Data(const std::string& settings)
{
    return "data\n" + settings + ".\n";
}

std::string TestAndMerge(const std::string& expected, const std::string& changes)
{
    return "test-and-merge\n" + expected + ".\n" + changes + ".\n";
}

/// One request as it is expected, and what it is answered with.
struct Exchange
{
    std::string request;
    std::string response;
};

class ResourceManagerFaultTest : public testing::Test
{
protected:
    /// Plays the exchanges, the last of which must not be lost. A request that is not the expected one ends the play,
    /// and the client fails to connect.
    void Play(const std::vector<Exchange>& exchanges)
    {
        _player = std::async(std::launch::async, [this, exchanges] {
            std::unique_ptr<ScriptedServer::Peer> pPeer;
            for (const Exchange& exchange : exchanges)
            {
                const bool isLost = exchange.response == Lost;
                for (int attempt = 0; attempt < (isLost ? ClientAttempts : 1); ++attempt)
                {
                    pPeer = pPeer ? std::move(pPeer) : _server.Accept();
                    if (!Answer(*pPeer, exchange))
                    {
                        _server.Close();
                        return;
                    }
                    pPeer = isLost ? nullptr : std::move(pPeer);
                }
            }
            EXPECT_TRUE(pPeer->MeetsTheEnd()) << "there are more requests";
            _server.Close();
        });
    }

    static bool Answer(ScriptedServer::Peer& peer, const Exchange& exchange)
    {
        const auto lines = std::count(exchange.request.begin(), exchange.request.end(), '\n');
        const std::string request = peer.Read(static_cast<int>(lines));
        EXPECT_EQ(request, exchange.request);
        peer.Send(exchange.response);
        return request == exchange.request;
    }

    LogCapture _log;
    ScriptedServer _server;
    std::future<void> _player;
    KorloSettingsClient _client{KorloSettingsClient::SingleThreaded};
    ResourceManager _manager{&_client};
};

TEST_F(ResourceManagerFaultTest, AFailedRefreshLeavesTheFiguresThatWereKnown)
{
    Play({{Get, Data(Known + Holds("A", 20))}, {Get, Lost}, {Get, Data(Holds("A", 7))}});
    EXPECT_EQ(_manager.GetTotal("R"), 50);

    EXPECT_EQ(MessageOf([this] { _manager.Refresh(); }), ConnectFailure);

    EXPECT_EQ(_manager.GetTotal("R"), 50);
    EXPECT_EQ(_manager.GetUsed("A", "R"), 20);
    EXPECT_EQ(_manager.GetAvailable("A", "R"), 50);
    EXPECT_EQ(_manager.GetAvailablePercent("A", "R"), 1.0);
    EXPECT_EQ(_manager.GetAvailable("B", "R"), 0);
    EXPECT_FALSE(_manager.IsAuthorized("B", "R"));
    _manager.Refresh();
    EXPECT_EQ(_manager.GetTotal("R"), 100) << "a later one replaces all of them";
    EXPECT_EQ(_manager.GetUsed("A", "R"), 7);
    EXPECT_TRUE(_manager.IsAuthorized("B", "R"));
}

TEST_F(ResourceManagerFaultTest, ARefreshThatFailsAtALaterResourceChangesNone)
{
    const std::string getQ = "get delimited\nResources/Q*\n.\n";
    Play({{getQ, Data("[Resources/Q]\nTotalAvailable=9\n")},
          {Get, Data(Known)},
          {getQ, Data("[Resources/Q]\nTotalAvailable=8\n")},
          {Get, Lost},
          {getQ, Data("")},
          {Get, Data("")}});
    EXPECT_EQ(_manager.GetTotal("Q"), 9);
    EXPECT_EQ(_manager.GetTotal("R"), 50);
    EXPECT_EQ(MessageOf([this] { _manager.Refresh(); }), ConnectFailure);
    EXPECT_EQ(_manager.GetTotal("Q"), 9);
    EXPECT_EQ(_manager.GetTotal("R"), 50);
    _manager.Refresh();
    EXPECT_EQ(_manager.GetTotal("Q"), 100);
}

TEST_F(ResourceManagerFaultTest, AFirstReadThatFailsAnswersNothing)
{
    Play({{Get, Lost}, {Get, Lost}, {Get, Lost}, {Get, Data(Known)}});
    EXPECT_EQ(MessageOf([this] { _manager.GetTotal("R"); }), ConnectFailure);
    EXPECT_EQ(MessageOf([this] { _manager.IsAuthorized("B", "R"); }), ConnectFailure);
    EXPECT_EQ(MessageOf([this] { _manager.ReserveResource("B", "R", 100); }), ConnectFailure);
    _manager.Refresh();
    EXPECT_FALSE(_manager.IsAuthorized("B", "R"));
    EXPECT_EQ(_manager.GetTotal("R"), 50);
}

TEST_F(ResourceManagerFaultTest, AfterAFailedRefreshAReservationReadsAgain)
{
    const std::string others = Holds("B", 70);
    Play({{Get, Data("")},
          {Get, Lost},
          {Get, Data(others)},
          {Get, Data(others)},
          {TestAndMerge(others, Holds("A", 30)), Ok}});
    EXPECT_EQ(_manager.GetAvailable("A", "R"), 100);
    EXPECT_EQ(MessageOf([this] { _manager.Refresh(); }), ConnectFailure);
    EXPECT_FALSE(_manager.ReserveResource("A", "R", 100)) << "B has come meanwhile, and holds 70";
    EXPECT_EQ(_manager.GetAvailable("A", "R"), 30);
    _manager.Refresh();
    EXPECT_TRUE(_manager.ReserveResource("A", "R", 30));
}

TEST_F(ResourceManagerFaultTest, ARetryThatCannotReadLeavesTheFiguresThatWereKnown)
{
    Play({{Get, Data(Known)},
          {TestAndMerge(Known, Holds("A", 40)), Failure},
          {Get, Lost},
          {Get, Data(Known + Holds("A", 1))},
          {TestAndMerge(Known + Holds("A", 1), Holds("A", 50)), Ok}});
    EXPECT_EQ(MessageOf([this] { _manager.ReserveResource("A", "R", 40); }), ConnectFailure);
    EXPECT_EQ(_manager.GetTotal("R"), 50);
    EXPECT_EQ(_manager.GetUsed("A", "R"), 0);
    EXPECT_FALSE(_manager.IsAuthorized("B", "R"));
    EXPECT_TRUE(_manager.ReserveResource("A", "R", 50));
    EXPECT_EQ(_manager.GetUsed("A", "R"), 50);
}

TEST_F(ResourceManagerFaultTest, AReservationOfUnknownOutcomeCountsAtTheNextOne)
{
    const std::string taken = Holds("A", 70);
    Play({{Get, Data("")},
          {TestAndMerge("", taken), Lost},  // it was written, but nobody heard of it
          {Get, Data(taken)},
          {TestAndMerge(taken, Holds("B", 30)), Ok}});
    EXPECT_EQ(MessageOf([this] { _manager.ReserveResource("A", "R", 70); }), ConnectFailure);
    EXPECT_EQ(_manager.GetUsed("A", "R"), 0) << "getters go on answering from what was read";
    EXPECT_FALSE(_manager.ReserveResource("B", "R", 100));
    EXPECT_TRUE(_manager.ReserveResource("B", "R", 30));
}

TEST_F(ResourceManagerFaultTest, AReserverWhoseRefreshFailedAuthorizesNobodyNew)
{
    ResourceReserver reserver(&_client, "R", "B");
    Play({{Get, Data(Known)}, {Get, Lost}, {Get, Lost}, {Get, Data(Known)}});
    EXPECT_FALSE(reserver.IsAuthorized());
    EXPECT_EQ(MessageOf([&reserver] { reserver.GetTotalResources(); }), ConnectFailure);
    EXPECT_FALSE(reserver.IsAuthorized());
    EXPECT_EQ(MessageOf([&reserver] { reserver.TrySetUsage(1); }), ConnectFailure);
    EXPECT_FALSE(reserver.IsAuthorized());
    EXPECT_EQ(reserver.GetAvailableResources(), 0);
}

TEST_F(ResourceManagerFaultTest, AReserverThatNeverReadAuthorizesNobody)
{
    ResourceReserver reserver(&_client, "R", "B");
    Play({{Get, Lost}, {Get, Lost}, {Get, Data(Known)}});
    EXPECT_EQ(MessageOf([&reserver] { reserver.GetTotalResources(); }), ConnectFailure);
    EXPECT_EQ(MessageOf([&reserver] { reserver.IsAuthorized(); }), ConnectFailure);
    EXPECT_FALSE(reserver.IsAuthorized());
}

}  // namespace
}  // namespace korlo::settings
