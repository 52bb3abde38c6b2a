// What a client asks a server, and tells its subscribers, after it was away. The test plays the server.

#include <algorithm>
#include <chrono>
#include <future>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>

#include "client/CatchUp.h"
#include "client/KnownGroups.h"
#include "client/KorloSettingsClientImplMultiThreaded.h"
#include "client/KorloSettingsTcpConnection.h"
#include "support/Callbacks.h"
#include "support/Documents.h"
#include "support/Files.h"
#include "support/LogWatch.h"
#include "support/ScriptedServer.h"
#include "support/TemporaryFolder.h"

namespace korlo::settings::client
{
namespace
{

using namespace std::chrono_literals;
using core::IniFile;
using testing::ElementsAre;
using testing::IsEmpty;

using Client = KorloSettingsClientImplMultiThreaded;
using Settings = settings::Change;

constexpr const char* Tcp = "127.0.0.1";
constexpr const char* Unix = "unix";
constexpr const char* GetFailure = "GetSettings failed to communicate with korlo-settings-server";

/// A client that wants to hear of missed changes, and the server that the test plays.
class MissedChangesTest : public testing::TestWithParam<const char*>
{
protected:
    MissedChangesTest() { pClient->ReportMissedChanges(true); }

    /// Lets the client go; a server that is still there answers to "quit".
    ~MissedChangesTest() override
    {
        auto farewell = std::async(std::launch::async, [this] {
            for (std::string line = pPeer->Read(1); line != "quit\n" && !line.empty(); line = pPeer->Read(1))
            {
            }
            pPeer->Close();
        });
        pClient.reset();
    }

    static std::string AddressIn(const TemporaryFolder& folder)
    {
        return GetParam() == std::string(Unix) ? "unix:" + folder.PathOf("socket") : GetParam();
    }

    /// The next lines are exactly these.
    void Expect(const std::string& text)
    {
        EXPECT_EQ(pPeer->Read(static_cast<int>(std::count(text.begin(), text.end(), '\n'))), text);
    }

    /// An application reads these groups, and the server answers.
    void Read(const GroupNameCollection& groups, const std::string& answer)
    {
        auto reading = std::async(std::launch::async, [this, groups] {
            IniFile settings;
            pClient->GetSettings(groups, settings);
        });
        Expect("get delimited\n" + Lines(groups) + ".\n");
        pPeer->Send("data\n" + answer + ".\n");
        reading.get();
    }

    void Subscribe(IChangeCallback& subscriber, const GroupNameCollection& groups)
    {
        pClient->Subscribe(&subscriber, groups);
        Expect("subscribe\n" + Lines(groups) + ".\n");
    }

    void Notify(const GroupNameCollection& groups, const std::string& settings)
    {
        pPeer->Send(Notification(groups, settings));
    }

    /// Ends the connection and plays the server of the next one.
    void Lose()
    {
        pPeer->Close();
        pPeer = server.Accept();
    }

    /// The client subscribes and reads.
    void ExpectCatchUp(const GroupNameCollection& groups)
    {
        Expect("subscribe\n" + Lines(groups) + ".\nget delimited\n" + Lines(groups) + ".\n");
    }

    /// Loses the connection; on the next one the groups hold what the answer says.
    void Reconnect(const GroupNameCollection& groups, const std::string& answer)
    {
        Lose();
        ExpectCatchUp(groups);
        pPeer->Send("data\n" + answer + ".\n");
    }

    /// Returns once everything that the server said before has been delivered.
    void Settle()
    {
        // The connection may have been lost while nobody waited, and that fails one call.
        auto reading = std::async(std::launch::async, [this] {
            IniFile settings;
            const bool hasFailed = MessageOf([&] { pClient->GetSettings({"settle"}, settings); }) == GetFailure;
            if (hasFailed)
            {
                pClient->GetSettings({"settle"}, settings);
            }
        });
        Expect("get delimited\nsettle\n.\n");
        pPeer->Send("data\n.\n");
        reading.get();
    }

    static std::string Lines(const GroupNameCollection& groups)
    {
        std::string lines;
        for (const std::string& group : groups)
        {
            lines += group + '\n';
        }
        return lines;
    }

    static std::string Notification(const GroupNameCollection& groups, const std::string& settings)
    {
        return "async change\n" + Lines(groups) + ".\n" + settings + ".\n";
    }

    TemporaryFolder folder;
    LogWatch log;
    ScriptedServer server{AddressIn(folder)};
    RecordingCallback callback;
    std::unique_ptr<Client> pClient =
        std::make_unique<Client>(new KorloSettingsTcpConnection, WaitLimits{.pauseMs = 1, .quitMs = 100});
    std::unique_ptr<ScriptedServer::Peer> pPeer = server.Accept();
};

INSTANTIATE_TEST_SUITE_P(Doors, MissedChangesTest, testing::Values(Tcp, Unix),
                         [](const auto& door) { return door.param == std::string(Unix) ? "Unix" : "Tcp"; });

TEST_P(MissedChangesTest, WithoutItAReconnectionOnlySubscribes)
{
    pClient->ReportMissedChanges(false);
    Read({"A"}, "[A]\nx=1\n");
    Subscribe(callback, {"A"});
    Lose();
    Expect("subscribe\nA\n.\n");
    pClient->MergeSettings(Ini("[A]\nx=2\n"), 0);
    Expect("merge\n[A]\nx=2\n.\n");
    Settle();
    EXPECT_THAT(callback.GetChanges(), IsEmpty());
}

TEST_P(MissedChangesTest, TheFirstConnectionSendsNotAByteMore)
{
    Read({"A"}, "[A]\nx=1\n");
    Subscribe(callback, {"A"});
    pClient->MergeSettings(Ini("[A]\nx=2\n"), 0);
    Expect("merge\n[A]\nx=2\n.\n");
    Notify({"A"}, "[A]\nx=2\n");
    Settle();
    EXPECT_THAT(callback.GetChanges(), ElementsAre(Settings{{"A"}, Ini("[A]\nx=2\n")}));
}

TEST_P(MissedChangesTest, AClientWithoutSubscribersReadsNothing)
{
    Read({"A"}, "[A]\nx=1\n");
    Lose();
    pClient->MergeSettings(Ini("[A]\nx=2\n"), 0);
    Expect("merge\n[A]\nx=2\n.\n");
}

TEST_P(MissedChangesTest, CallersSendWhenTheMissedChangesHaveBeenRead)
{
    Subscribe(callback, {"A", "B*"});
    Lose();
    ExpectCatchUp({"A", "B*"});
    auto merging = std::async(std::launch::async, [this] { pClient->MergeSettings(Ini("[A]\nx=2\n"), 0); });
    EXPECT_EQ(merging.wait_for(20ms), std::future_status::timeout);
    pPeer->Send("data\n.\n");
    Expect("merge\n[A]\nx=2\n.\n");
    merging.get();
}

TEST_P(MissedChangesTest, WhatDiffersFromTheLastDeliveryIsDeliveredWhole)
{
    Read({"A", "B", "C", "N*"}, "[A]\nk=0\nx=1\n[B]\nx=1\n[C]\nx=1\n[N1]\nx=1\n[N2]\nx=1\n");
    Subscribe(callback, {"A", "B", "C", "N*"});
    Notify({"A", "B"}, "[A]\nk=0\nx=2\n[B]\nx=2\n");
    Settle();
    // A as delivered, B as read before, C gone, N1 gone, N2 the same, N3 new.
    Reconnect({"A", "B", "C", "N*"}, "[A]\nk=0\nx=2\n[B]\nx=1\n[N2]\nx=1\n[N3]\nx=1\n");
    Settle();
    EXPECT_THAT(callback.GetChanges(), ElementsAre(Settings{{"A", "B"}, Ini("[A]\nk=0\nx=2\n[B]\nx=2\n")},
                                                   Settings{{"B", "C", "N1", "N3"}, Ini("[B]\nx=1\n[N3]\nx=1\n")}));
    Reconnect({"A", "B", "C", "N*"}, "[A]\nk=0\nx=2\n[B]\nx=1\n[N2]\nx=1\n[N3]\nx=1\n");
    Settle();
    EXPECT_EQ(callback.GetChanges().size(), 2U) << "delivered once, it is known";
}

TEST_P(MissedChangesTest, EachSubscriberHearsOfItsOwnGroups)
{
    RecordingCallback other;
    Read({"A", "B"}, "[A]\nx=1\n[B]\nx=1\n");
    Subscribe(callback, {"A"});
    Subscribe(other, {"B"});
    Reconnect({"A", "B"}, "[A]\nx=1\n[B]\nx=2\n");
    Settle();
    EXPECT_THAT(callback.GetChanges(), IsEmpty());
    EXPECT_THAT(other.GetChanges(), ElementsAre(Settings{{"B"}, Ini("[B]\nx=2\n")}));
}

TEST_P(MissedChangesTest, AGroupThatIsAsItWasIsNotDelivered)
{
    Read({"*"}, "[A]\nx=1\ny=2\n[Empty]\n");
    Read({"Missing"}, "");
    Subscribe(callback, {"A", "Empty", "Gone", "Missing", "P*"});
    Notify({"P1"}, "[P1]\nx=1\n");
    Notify({"P1"}, "");
    Reconnect({"A", "Empty", "Gone", "Missing", "P*"}, "[A]\ny=2\nx=1\n[Empty]\n");
    Settle();
    EXPECT_THAT(callback.GetGroups(), ElementsAre(GroupNameCollection{"P1"}, GroupNameCollection{"P1"}));
}

TEST_P(MissedChangesTest, WhatWasNeitherDeliveredNorReadIsDeliveredOnce)
{
    Read({"Z"}, "[Z]\nx=1\n");
    Subscribe(callback, {"A", "Missing", "P*"});
    for (int reconnection = 0; reconnection < 2; ++reconnection)
    {
        Reconnect({"A", "Missing", "P*"}, "[A]\nx=1\n[P1]\nx=1\n");
        Settle();
        EXPECT_THAT(callback.GetChanges(), ElementsAre(Settings{{"A", "Missing", "P1"}, Ini("[A]\nx=1\n[P1]\nx=1\n")}));
    }
}

TEST_P(MissedChangesTest, TheBordersOfKeysAndValuesCount)
{
    const std::vector<std::string> contents{"ab=c\n", "a=bc\n", "abc=\n", "a=b\nc=\n", "a=\nb=c\n", "", "\"\"=\n"};
    Read({"A"}, "[A]\n" + contents.back());
    Subscribe(callback, {"A"});
    std::vector<Settings> expected;
    for (const std::string& content : contents)
    {
        Reconnect({"A"}, "[A]\n" + content);
        expected.push_back({{"A"}, Ini("[A]\n" + content)});
    }
    Settle();
    EXPECT_EQ(callback.GetChanges(), expected);
}

TEST_P(MissedChangesTest, AReadBehindTheSubscriptionHidesNothing)
{
    Read({"A"}, "[A]\nx=1\n");
    Subscribe(callback, {"A"});
    Read({"A"}, "[A]\nx=2\n");  // somebody else's read; the notification is lost
    Reconnect({"A"}, "[A]\nx=2\n");
    Settle();
    EXPECT_THAT(callback.GetChanges(), ElementsAre(Settings{{"A"}, Ini("[A]\nx=2\n")}));
}

TEST_P(MissedChangesTest, TheLastReadBeforeTheSubscriptionCounts)
{
    Read({"A", "B"}, "[A]\nx=1\n[B]\nx=1\n");
    Read({"A"}, "[A]\nx=2\n");
    Read({"B*"}, "");
    Subscribe(callback, {"A", "B"});
    Reconnect({"A", "B"}, "[A]\nx=2\n");
    Settle();
    EXPECT_THAT(callback.GetChanges(), IsEmpty());
    Reconnect({"A", "B"}, "[A]\nx=1\n[B]\nx=1\n");
    Settle();
    EXPECT_THAT(callback.GetGroups(), ElementsAre(GroupNameCollection{"A", "B"}));
}

TEST_P(MissedChangesTest, NotificationsThatComeBeforeTheAnswerAreDeliveredAfterIt)
{
    Read({"A"}, "[A]\nx=1\n");
    Subscribe(callback, {"A"});
    Lose();
    ExpectCatchUp({"A"});
    Notify({"A"}, "[A]\nx=3\n");
    pPeer->Send("data\n[A]\nx=2\n.\n" + Notification({"A"}, "[A]\nx=4\n"));
    Settle();
    EXPECT_THAT(callback.GetChanges(),
                ElementsAre(Settings{{"A"}, Ini("[A]\nx=2\n")}, Settings{{"A"}, Ini("[A]\nx=3\n")},
                            Settings{{"A"}, Ini("[A]\nx=4\n")}));
}

TEST_P(MissedChangesTest, AFloodOfNotificationsBeforeTheAnswerIsPutTogether)
{
    Read({"N*"}, "");
    Subscribe(callback, {"N*"});
    Lose();
    ExpectCatchUp({"N*"});
    constexpr int count = 1000;
    std::string flood;
    for (int value = 1; value <= count; ++value)
    {
        flood += Notification({"N" + std::to_string(value % 3)},
                              "[N" + std::to_string(value % 3) + "]\nv" + std::to_string(value) + "=1\n");
    }
    pPeer->Send(flood + Notification({"N2"}, "") + "data\n.\n");
    Settle();
    const std::vector<Settings> changes = callback.GetChanges();
    ASSERT_EQ(changes.size(), CatchUp::MostNotifications);
    EXPECT_EQ(changes.front(), (Settings{{"N1"}, Ini("[N1]\nv1=1\n")}));
    EXPECT_EQ(changes.back(), (Settings{{"N0", "N1", "N2"}, Ini("[N0]\nv999=1\n[N1]\nv1000=1\n")}));
}

TEST_P(MissedChangesTest, ACallbackMaySendFromTheDelivery)
{
    std::promise<void> sent;
    FunctionCallback sender([&](const GroupNameCollection&, const IniFile&) {
        pClient->MergeSettings(Ini("[B]\nx=1\n"), 0);
        pClient->OverwriteSettings({"B"}, IniFile());
        pClient->RestoreToDefaults({"B"});
        sent.set_value();
    });
    Subscribe(sender, {"A"});
    Reconnect({"A"}, "[A]\nx=1\n");
    EXPECT_EQ(sent.get_future().wait_for(30s), std::future_status::ready);
    Expect("merge\n[B]\nx=1\n.\noverwrite\nB\n.\n.\nrestore\nB\n.\n");
}

TEST_P(MissedChangesTest, ACallbackMaySubscribeFromTheDelivery)
{
    RecordingCallback late;
    bool isSubscribed = false;
    FunctionCallback subscriber([&](const GroupNameCollection&, const IniFile&) {
        if (!std::exchange(isSubscribed, true))
        {
            pClient->Subscribe(&late, {"L"});
        }
    });
    Read({"A", "L"}, "[A]\nx=1\n[L]\nx=1\n");
    Subscribe(subscriber, {"A"});
    Reconnect({"A"}, "[A]\nx=2\n");
    Expect("subscribe\nL\n.\n");
    Settle();
    EXPECT_THAT(late.GetChanges(), IsEmpty());
    Reconnect({"A", "L"}, "[A]\nx=2\n[L]\nx=2\n");
    Settle();
    EXPECT_THAT(late.GetChanges(), ElementsAre(Settings{{"L"}, Ini("[L]\nx=2\n")}));
}

TEST_P(MissedChangesTest, ACallbackMayUnsubscribeFromTheDelivery)
{
    int calls = 0;
    FunctionCallback leaver;
    leaver.Do([&](const GroupNameCollection&, const IniFile&) {
        ++calls;
        pClient->UnSubscribe(&leaver);
    });
    Subscribe(leaver, {"A"});
    Subscribe(callback, {"B"});
    Reconnect({"A", "B"}, "[A]\nx=1\n[B]\nx=1\n");
    Settle();
    Reconnect({"B"}, "[B]\nx=1\n");
    Settle();
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(callback.GetChanges().size(), 1U);
}

TEST_P(MissedChangesTest, WhatNobodyAsksForAnyMoreIsForgotten)
{
    Read({"A"}, "[A]\nx=1\n");
    Subscribe(callback, {"A"});
    pClient->UnSubscribe(&callback);
    Lose();
    Subscribe(callback, {"A"});
    Reconnect({"A"}, "[A]\nx=1\n");
    Settle();
    EXPECT_THAT(callback.GetChanges(), ElementsAre(Settings{{"A"}, Ini("[A]\nx=1\n")})) << "nobody read it since";
}

TEST_P(MissedChangesTest, AReadCountsForASubscriptionThatFollowsAnEarlierOne)
{
    Read({"A"}, "[A]\nx=1\n");
    Subscribe(callback, {"A"});
    pClient->UnSubscribe(&callback);
    Read({"A"}, "[A]\nx=2\n");
    Subscribe(callback, {"*"});
    Reconnect({"*"}, "[A]\nx=2\n");
    Settle();
    EXPECT_THAT(callback.GetChanges(), IsEmpty());
}

TEST_P(MissedChangesTest, AConnectionThatIsLostDuringTheReadLosesAndRepeatsNothing)
{
    Read({"A"}, "[A]\nx=1\n");
    Subscribe(callback, {"A"});
    const std::string said = Notification({"A"}, "[A]\nx=2\n") + "data\n[A]\nx=3\n.\n";
    for (std::size_t length = 0; length < said.size(); ++length)
    {
        Lose();
        ExpectCatchUp({"A"});
        pPeer->Send(said.substr(0, length));
    }
    Reconnect({"A"}, "[A]\nx=4\n");
    Settle();
    EXPECT_THAT(callback.GetChanges(), ElementsAre(Settings{{"A"}, Ini("[A]\nx=4\n")}));
}

TEST_P(MissedChangesTest, LinesThatMakeNoSenseDoNotKeepItFromTheAnswer)
{
    Subscribe(callback, {"A"});
    Lose();
    ExpectCatchUp({"A"});
    pPeer->Send("hello\ndata\n[A]\nx=1\n.\n");
    Settle();
    EXPECT_EQ(log.Count("3 KorloSettings: Message received without corresponding request"), 1);
    Lose();
    ExpectCatchUp({"A"});
    pPeer->Send("\n");
    pPeer = server.Accept();
    ExpectCatchUp({"A"});
    pPeer->Send("data\n[A]\nx=2\n.\n");
    Settle();
    EXPECT_THAT(callback.GetChanges(),
                ElementsAre(Settings{{"A"}, Ini("[A]\nx=1\n")}, Settings{{"A"}, Ini("[A]\nx=2\n")}));
}

TEST_P(MissedChangesTest, AfterACallbackThrewItHearsOfThatChangeOnceMore)
{
    int calls = 0;
    FunctionCallback thrower([&](const GroupNameCollection&, const IniFile&) {
        ++calls;
        throw std::runtime_error("I do not like it");
    });
    Read({"A*"}, "[A1]\nx=1\n[A2]\nx=1\n");
    Subscribe(thrower, {"A*"});
    Notify({"A1", "A2"}, "[A1]\nx=2\n");
    EXPECT_TRUE(pPeer->MeetsTheEnd());
    pPeer = server.Accept();
    ExpectCatchUp({"A*"});
    pPeer->Send("data\n[A1]\nx=2\n.\n");
    EXPECT_TRUE(pPeer->MeetsTheEnd());
    pPeer = server.Accept();
    ExpectCatchUp({"A*"});
    pPeer->Send("data\n[A1]\nx=2\n.\n");
    Settle();
    EXPECT_EQ(calls, 2) << "a callback that always throws must not keep the client from its work";
}

TEST_P(MissedChangesTest, TurnedOffItForgetsAndTurnedOnItKnowsNothing)
{
    Read({"A"}, "[A]\nx=1\n");
    Subscribe(callback, {"A"});
    pClient->ReportMissedChanges(true);  // as it is
    Reconnect({"A"}, "[A]\nx=1\n");
    Settle();
    EXPECT_THAT(callback.GetChanges(), IsEmpty());
    pClient->ReportMissedChanges(false);
    pClient->ReportMissedChanges(true);
    Reconnect({"A"}, "[A]\nx=1\n");
    Settle();
    EXPECT_THAT(callback.GetChanges(), ElementsAre(Settings{{"A"}, Ini("[A]\nx=1\n")}));
}

TEST_P(MissedChangesTest, TurnedOffDuringTheReadNothingIsDelivered)
{
    Subscribe(callback, {"A"});
    Lose();
    ExpectCatchUp({"A"});
    pClient->ReportMissedChanges(false);
    Notify({"A"}, "[A]\nx=1\n");
    pPeer->Send("data\n[A]\nx=1\n.\n");
    Settle();
    EXPECT_THAT(callback.GetChanges(), ElementsAre(Settings{{"A"}, Ini("[A]\nx=1\n")})) << "the notification alone";
}

TEST_P(MissedChangesTest, ACallbackMayTurnItOff)
{
    FunctionCallback quitter([&](const GroupNameCollection&, const IniFile&) { pClient->ReportMissedChanges(false); });
    Subscribe(quitter, {"A"});
    Reconnect({"A"}, "[A]\nx=1\n");
    Settle();
    pClient->ReportMissedChanges(true);
    Notify({"A"}, "[A]\nx=2\n");
    Settle();
    Lose();
    Expect("subscribe\nA\n.\n");
}

TEST_P(MissedChangesTest, AServerThatWasAwayForLongIsReadOnce)
{
    Read({"A"}, "[A]\nx=1\n");
    Subscribe(callback, {"A"});
    for (int lost = 0; lost < 50; ++lost)
    {
        Lose();  // before it says anything
    }
    Reconnect({"A"}, "[A]\nx=2\n");
    Settle();
    EXPECT_THAT(callback.GetChanges(), ElementsAre(Settings{{"A"}, Ini("[A]\nx=2\n")}));
}

TEST_P(MissedChangesTest, TheEndOfTheClientDuringTheReadWaitsForNobody)
{
    Subscribe(callback, {"A"});
    Lose();
    ExpectCatchUp({"A"});
    auto ending = std::async(std::launch::async, [this] { pClient.reset(); });
    EXPECT_EQ(ending.wait_for(30s), std::future_status::ready);
    EXPECT_TRUE(pPeer->MeetsTheEnd());
}

/// The connection is reported first, and then what was missed on the same thread.
class StateCallback : public IConnectionCallback
{
public:
    explicit StateCallback(RecordingCallback& callback) : _callback(callback) {}

    void OnConnectionState(bool isConnected) override
    {
        states.emplace_back(isConnected, _callback.GetChanges().size());
    }

    std::vector<std::pair<bool, std::size_t>> states;

private:
    RecordingCallback& _callback;
};

TEST_P(MissedChangesTest, TheConnectionIsReportedBeforeWhatWasMissed)
{
    StateCallback states(callback);
    Subscribe(callback, {"A"});
    Settle();  // the client itself knows of its connection
    pClient->SetConnectionCallback(&states);
    Reconnect({"A"}, "[A]\nx=1\n");
    Settle();
    pClient->SetConnectionCallback(nullptr);
    EXPECT_THAT(states.states, ElementsAre(std::pair(true, 0U), std::pair(false, 0U), std::pair(true, 0U)));
    EXPECT_EQ(callback.GetChanges().size(), 1U);
}

TEST_P(MissedChangesTest, AnyNumberOfReadsCostsABoundedAmountOfMemory)
{
    const int count = static_cast<int>(KnownGroups::MostReads);
    IniFile many;
    for (int group = 0; group < count; ++group)
    {
        many.SetInt("N" + std::to_string(group), "x", 1);
    }
    Read({"A"}, "[A]\nx=1\n");
    Read({"N*"}, TextOf(many));
    Subscribe(callback, {"A", "N*"});
    Reconnect({"A", "N*"}, "[A]\nx=1\n" + TextOf(many));
    Settle();
    EXPECT_THAT(callback.GetGroups(), ElementsAre(GroupNameCollection{"A"})) << "the last read stays, earlier ones go";
}

}  // namespace
}  // namespace korlo::settings::client
