#include "settings/server/ClientHandler.h"

#include <functional>
#include <set>
#include <sstream>
#include <utility>
#include <vector>

#include <gmock/gmock.h>

#include "korlo/osa/Exception.h"
#include "support/Callbacks.h"
#include "support/Documents.h"
#include "support/ExchangeStore.h"
#include "support/Files.h"
#include "support/LogCapture.h"
#include "support/PiecewiseStream.h"
#include "support/ProtocolExchanges.h"

namespace korlo::settings::server
{
namespace
{

using testing::ElementsAre;
using testing::IsEmpty;
using testing::MatchesRegex;

TEST(ClientHandlerTest, EveryExchangeIsByteExactHoweverTheRequestArrives)
{
    for (const Exchange& exchange : Exchanges)
    {
        for (const std::size_t pieceBytes : {1u, 2u, 3u, 4u, 5u, 7u, 16u, 4096u})
        {
            SCOPED_TRACE(std::string(exchange.name) + ", in pieces of " + std::to_string(pieceBytes));
            ExchangeStore store;
            PiecewiseStream in(exchange.request, pieceBytes);
            EXPECT_EQ(store.Serve(in), exchange.response);
            EXPECT_EQ(store.User(), exchange.user);
            EXPECT_EQ(store.Settings(), exchange.settings);
        }
    }
}

/// The states that a store passes through while the request is served line by line: a cut may leave any of them.
std::set<std::string> StatesOf(const std::string& request)
{
    std::set<std::string> states{ExchangeDefaults};
    ExchangeStore store;
    FunctionCallback observer(
        [&](const GroupNameCollection&, const core::IniFile&) { states.insert(store.Settings()); });
    store.manager.Subscribe(&observer, "*");
    store.Serve(request);
    store.manager.Unsubscribe(&observer);
    return states;
}

TEST(ClientHandlerTest, EveryCommandIsAnOperationThatTakesItsOptions)
{
    ExchangeStore store;
    std::istringstream blocks("[Audio]\nvolume=9\n.\n"                        // merge
                              "[Audio]\nvolume=9\n.\n[Audio]\nvolume=8\n.\n"  // test-and-merge
                              "Net/*\n.\n.\n"                                 // overwrite
                              "Audio\n.\n"                                    // subscribe
                              "Audio\n.\n"                                    // restore
                              "Audio\n.\n"                                    // get
                              "Nothing reads this\n");
    std::ostringstream out;
    ClientHandler handler(&store.env, &blocks, &out);
    const auto call = [&handler](void (ClientHandler::*pCommand)(std::istream&), const std::string& options) {
        std::istringstream words(options);
        (handler.*pCommand)(words);
    };
    call(&ClientHandler::Merge, " nopersist");
    call(&ClientHandler::Dump, "");
    call(&ClientHandler::TestAndMerge, "");
    call(&ClientHandler::Overwrite, "");
    call(&ClientHandler::Dump, " all");
    call(&ClientHandler::Subscribe, "");
    call(&ClientHandler::Info, " subscribed");
    call(&ClientHandler::ChangeSerialization, " phparray");
    call(&ClientHandler::RestoreDefaults, "");
    call(&ClientHandler::ChangeSerialization, " ini");
    call(&ClientHandler::GetSections, " delimited");
    call(&ClientHandler::Quit, "");
    handler.Run();

    EXPECT_EQ(out.str(), ".\n"
                         "result\nok\n"
                         "[Audio]\nmuted=no\nvolume=8\n.\n"
                         "Subscribed groups\n-----------------\nAudio\n\n"
                         "async change\nAudio\n.\n"
                         "a:1:{s:5:\"Audio\";a:2:{s:5:\"muted\";s:2:\"no\";s:6:\"volume\";s:1:\"3\";}}\n\n.\n"
                         "data\n" +
                             Audio + ".\n");
    std::string unread;
    EXPECT_TRUE(std::getline(blocks, unread));
    EXPECT_EQ(unread, "Nothing reads this");
}

TEST(ClientHandlerTest, ARequestThatIsCutOffIsNotCarriedOut)
{
    const LogCapture log;
    for (const Exchange& exchange : Exchanges)
    {
        const std::set<std::string> states = StatesOf(exchange.request);
        for (std::size_t length = 0; length < exchange.request.size(); ++length)
        {
            SCOPED_TRACE(std::string(exchange.name) + ", cut after byte " + std::to_string(length));
            ExchangeStore store;
            std::string answer;
            try
            {
                answer = store.Serve(exchange.request.substr(0, length));
            }
            catch (const osa::Exception&)
            {
                // A phparray body tells by an exception that it is cut.
            }
            EXPECT_TRUE(exchange.response.starts_with(answer)) << answer;
            EXPECT_TRUE(states.contains(store.Settings())) << store.Settings();
        }
    }
}

TEST(ClientHandlerTest, NoBlockOfARequestThatIsCutOffIsCarriedOut)
{
    const LogCapture log;
    const std::vector<std::string> requests = {
        "get delimited\nAudio\n.\n",
        "get\nAudio\n.\n",
        "merge\n[Audio]\nvolume=9\n.\n",
        "merge nopersist\n[Audio]\nvolume=9\n.\n",
        "test-and-merge\n[Audio]\nvolume=3\n.\n[Audio]\nvolume=4\n.\n",
        "overwrite\nAudio\n.\n[Audio]\nvolume=1\n.\n",
        "restore\nAudio\n.\n",
        "dump\n",
        "dump all\n",
        "info subscribed\n",
    };
    for (const std::string& request : requests)
    {
        for (std::size_t length = 0; length < request.size(); ++length)
        {
            SCOPED_TRACE(request.substr(0, length));
            ExchangeStore store;
            EXPECT_EQ(store.Serve(request.substr(0, length)), "");
            EXPECT_EQ(store.Settings(), ExchangeDefaults);
            EXPECT_EQ(store.persister.saveCount, 0);
        }
    }
}

/// Notes the requests. Says what happens before one, and after which the connection ends.
struct RecordingGate : IRequestGate
{
    bool BeforeRequest() override
    {
        before();
        return requests++ < most;
    }

    void BeforeStore(RequestKind kind) override { kinds.push_back(kind); }

    std::function<void()> before = [] {};
    int most = 1000;
    int requests = 0;
    std::vector<RequestKind> kinds;
};

TEST(ClientHandlerTest, ASubscriptionThatIsCutOffIsNotMade)
{
    const std::string request = "subscribe\nAudio\n.\n";
    for (std::size_t length = 0; length <= request.size(); ++length)
    {
        SCOPED_TRACE(length);
        ExchangeStore store;
        std::istringstream in(request.substr(0, length));
        std::ostringstream out;
        // The end of the loop removes every subscription: so the change is made before it.
        RecordingGate gate;
        gate.before = [&] { store.manager.MergeSettings(Ini("[Audio]\nvolume=4\n"), 0); };
        ClientHandler(&store.env, &in, &out, &gate).Run();
        EXPECT_EQ(out.str().empty(), length < request.size()) << out.str();
    }
}

TEST(ClientHandlerTest, AnUnknownWordCostsOneWarningAndNothingElse)
{
    const LogCapture log;
    ExchangeStore store;
    EXPECT_EQ(store.Serve("GET delimited\nbogus word\nmerges\n"), "");
    EXPECT_THAT(log.GetMessages(),
                ElementsAre("4 MsgDispatcher: Invalid command: GET", "4 MsgDispatcher: Invalid command: bogus",
                            "4 MsgDispatcher: Invalid command: merges"));
}

TEST(ClientHandlerTest, OfALongUnknownWordTheLogHasTheBeginning)
{
    const LogCapture log;
    ExchangeStore store;
    const std::string whole(64, 'x');
    EXPECT_EQ(store.Serve(whole + '\n' + whole + "y\n" + whole + std::string(1170, 'y') + '\n'), "");
    EXPECT_THAT(log.GetMessages(), ElementsAre("4 MsgDispatcher: Invalid command: " + whole,
                                               "4 MsgDispatcher: Invalid command: " + whole + "... (65 bytes)",
                                               "4 MsgDispatcher: Invalid command: " + whole + "... (1234 bytes)"));
}

TEST(ClientHandlerTest, StrayTerminatorsAndBlankLinesAreSkippedWithoutAWord)
{
    const LogCapture log;
    ExchangeStore store;
    EXPECT_EQ(store.Serve(".\n\n   \n\t.\n"), "");
    EXPECT_THAT(log.GetMessages(), IsEmpty());
}

TEST(ClientHandlerTest, ServesARequestAfterAnUnknownWord)
{
    const LogCapture log;
    ExchangeStore store;
    EXPECT_EQ(store.Serve("hello\ndump\n"), ".\n");
}

TEST(ClientHandlerTest, TracesEachCommandAndItsTime)
{
    const LogCapture log;
    core::Logger::GetLogger("MsgDispatcher")->SetThreshold(core::LogLevelTrace);
    ExchangeStore store;
    store.Serve("dump\n");
    EXPECT_THAT(log.GetMessages(),
                ElementsAre("8 MsgDispatcher: Handling command: dump",
                            MatchesRegex("8 MsgDispatcher: Command dump took [0-9]+\\.[0-9]{6} seconds")));
}

TEST(ClientHandlerTest, TracesASwitchOfTheSerializerButNotAnUnknownOne)
{
    const LogCapture log;
    core::Logger::GetLogger("ClientHandler")->SetThreshold(core::LogLevelTrace);
    ExchangeStore store;
    store.Serve("serialize phparray\nserialize nobody\n");
    EXPECT_THAT(log.GetMessages(), ElementsAre("8 ClientHandler: switching to serialization mode: phparray"));
}

TEST(ClientHandlerTest, TheSerializerBelongsToTheConnection)
{
    ExchangeStore store;
    store.Serve("serialize phparray\n");
    EXPECT_EQ(store.Serve("get\nNet/wlan0\n.\n"), Wlan0);
}

TEST(ClientHandlerTest, SubscriptionsEndWithTheConnection)
{
    for (const char* requests : {"subscribe\nAudio\n.\n", "subscribe\nAudio\n.\nquit\n"})
    {
        ExchangeStore store;
        std::istringstream in(requests);
        std::ostringstream out;
        ClientHandler handler(&store.env, &in, &out);
        handler.Run();
        store.manager.MergeSettings(Ini("[Audio]\nvolume=4\n"), 0);
        EXPECT_EQ(out.str(), "");
        EXPECT_EQ(store.Serve("info subscribed\n"), "Subscribed groups\n-----------------\n\n");
    }
}

TEST(ClientHandlerTest, AHandlerThatIsDestroyedIsSubscribedNoMore)
{
    ExchangeStore store;
    {
        std::istringstream in;
        std::ostringstream out;
        ClientHandler handler(&store.env, &in, &out);
        store.manager.Subscribe(&handler, "Audio");
    }
    store.manager.MergeSettings(Ini("[Audio]\nvolume=4\n"), 0);
    EXPECT_EQ(store.Serve("info subscribed\n"), "Subscribed groups\n-----------------\n\n");
}

TEST(ClientHandlerTest, InfoListsTheGroupsOfEveryConnection)
{
    ExchangeStore store;
    FunctionCallback other([](const GroupNameCollection&, const core::IniFile&) {});
    store.manager.Subscribe(&other, "Video*");
    EXPECT_EQ(store.Serve("subscribe\nAudio\n.\ninfo subscribed\n"),
              "Subscribed groups\n-----------------\nAudio\nVideo*\n\n");
    store.manager.Unsubscribe(&other);
}

TEST(ClientHandlerTest, InfoListsNoNameThatWouldLookLikeSeveral)
{
    ExchangeStore store;
    FunctionCallback other([](const GroupNameCollection&, const core::IniFile&) {});
    store.manager.Subscribe(&other, GroupNameCollection{"Audio\n\nresult\nok", "Video"});
    EXPECT_EQ(store.Serve("info subscribed\n"), "Subscribed groups\n-----------------\nVideo\n\n");
    store.manager.Unsubscribe(&other);
}

TEST(ClientHandlerTest, ANotificationTellsWhatTheStoreHoldsWhenItIsWritten)
{
    ExchangeStore store;
    std::istringstream in;
    std::ostringstream out;
    ClientHandler handler(&store.env, &in, &out);
    handler.OnChange({"Audio", "Gone", "Net/wlan0"}, Ini("[Audio]\nvolume=old\n[Gone]\nx=1\n"));
    EXPECT_EQ(out.str(), "async change\nAudio\nGone\nNet/wlan0\n.\n" + Audio + Wlan0 + ".\n");
}

TEST(ClientHandlerTest, ANotificationOfNoGroupsIsStillAWholeMessage)
{
    ExchangeStore store;
    std::istringstream in;
    std::ostringstream out;
    ClientHandler handler(&store.env, &in, &out);
    handler.OnChange({}, core::IniFile());
    EXPECT_EQ(out.str(), "async change\n.\n.\n");
}

TEST(ClientHandlerTest, ANotificationLeavesOutNamesThatAListCannotCarry)
{
    const LogCapture log;
    ExchangeStore store;
    std::istringstream in;
    std::ostringstream out;
    ClientHandler handler(&store.env, &in, &out);
    handler.OnChange({".", "Audio", "a\n.\nresult\nok"}, core::IniFile());
    EXPECT_EQ(out.str(), "async change\nAudio\n.\n" + Audio + ".\n");
    EXPECT_THAT(log.GetMessages(),
                ElementsAre(testing::HasSubstr("4 ClientHandler: A change of group '.' is not announced"),
                            testing::HasSubstr("4 ClientHandler: A change of group 'a\n.\nresult\nok' is not")));
}

TEST(ClientHandlerTest, ANotificationOfNothingButSuchNamesIsNotWritten)
{
    const LogCapture log;
    ExchangeStore store;
    EXPECT_EQ(store.Serve("subscribe\n*\n.\nmerge\n[\"x\\ny\"]\nk=v\n.\n"), "");
    EXPECT_EQ(log.GetMessages().size(), 1u);
}

TEST(ClientHandlerTest, AnExceptionOutOfTheStoreEndsTheConnection)
{
    ExchangeStore store;
    store.persister.beforeSave = [] { throw osa::Exception("the disk is full"); };
    EXPECT_EQ(MessageOf([&] { store.Serve("merge\n[Audio]\nvolume=9\n.\ndump\n"); }), "the disk is full");
}

TEST(ClientHandlerTest, AnExceptionOutOfASerializerEndsTheConnection)
{
    ExchangeStore store;
    EXPECT_EQ(MessageOf([&] { store.Serve("serialize phparray\ntest-and-merge\na:0:{}\n.\na:0:{}\n.\n"); }),
              "expected: 'a' but got: '.'");
    EXPECT_EQ(store.Settings(), ExchangeDefaults);
}

/// Counts how often what was written is flushed.
class FlushCounter : public std::stringbuf
{
public:
    std::vector<std::string> flushed;

protected:
    int sync() override
    {
        flushed.push_back(str());
        str("");
        return 0;
    }
};

TEST(ClientHandlerTest, EachMessageLeavesWhole)
{
    ExchangeStore store;
    std::istringstream in("subscribe\nAudio\n.\ntest-and-merge\n.\n[Audio]\nvolume=4\n.\nget delimited\nAudio\n.\n"
                          "dump all\ninfo subscribed\n");
    FlushCounter buffer;
    std::ostream out(&buffer);
    ClientHandler(&store.env, &in, &out).Run();
    const std::string audio = "[Audio]\nmuted=no\nvolume=4\n";
    EXPECT_THAT(buffer.flushed,
                ElementsAre("async change\nAudio\n.\n" + audio + ".\n", "result\nok\n", "data\n" + audio + ".\n",
                            audio + Eth0 + Wlan0 + ".\n", "Subscribed groups\n-----------------\nAudio\n\n"));
}

TEST(ClientHandlerTest, TheGateIsAskedBeforeEachRequest)
{
    ExchangeStore store;
    std::istringstream in("dump\nmerge\n[A]\nk=v\n.\nquit\n");
    std::ostringstream out;
    RecordingGate gate;
    ClientHandler(&store.env, &in, &out, &gate).Run();
    EXPECT_EQ(gate.requests, 3);
}

TEST(ClientHandlerTest, TheGateEndsTheConnectionBetweenTwoRequests)
{
    ExchangeStore store;
    std::istringstream in("subscribe\n*\n.\nget\nAudio\n.\ndump all\n");
    std::ostringstream out;
    RecordingGate gate;
    gate.most = 2;
    ClientHandler handler(&store.env, &in, &out, &gate);
    handler.Run();
    EXPECT_EQ(out.str(), Audio);
    std::string unread;
    EXPECT_TRUE(std::getline(in, unread));
    EXPECT_EQ(unread, "dump all");
    store.manager.MergeSettings(Ini("[Audio]\nvolume=4\n"), 0);
    EXPECT_EQ(out.str(), Audio) << "it is subscribed no more";
}

TEST(ClientHandlerTest, TheGateHearsWhatEachRequestDoesBeforeItIsDone)
{
    const std::vector<std::pair<const char*, RequestKind>> requests = {
        {"merge\n[Audio]\nvolume=9\n.\n", RequestKind::PersistentChange},
        {"merge nopersist\n[Audio]\nvolume=9\n.\n", RequestKind::Change},
        {"test-and-merge\n.\n[Audio]\nvolume=4\n.\n", RequestKind::PersistentChange},
        {"overwrite\nAudio\n.\n.\n", RequestKind::PersistentChange},
        {"restore\nAudio\n.\n", RequestKind::Restore},
        {"subscribe\nAudio\n.\n", RequestKind::Subscription},
        {"get\nAudio\n.\n", RequestKind::Read},
        {"dump\n", RequestKind::Read},
        {"info subscribed\n", RequestKind::Read},
    };
    for (const auto& [request, kind] : requests)
    {
        SCOPED_TRACE(request);
        ExchangeStore store;
        std::istringstream in(std::string("quiet\nserialize ini\ninfo\nsubscribe\n.\n\n") + request);
        std::ostringstream out;
        RecordingGate gate;
        const LogCapture log;
        ClientHandler(&store.env, &in, &out, &gate).Run();
        EXPECT_THAT(gate.kinds, ElementsAre(kind));
    }
}

TEST(ClientHandlerTest, TheGateHearsNothingOfARequestThatIsCutOff)
{
    for (const char* request : {"merge\n[Audio]\n", "test-and-merge\n.\n", "overwrite\nA\n.\n", "restore\nA\n",
                                "subscribe\nA\n", "get\nA\n", "dump"})
    {
        SCOPED_TRACE(request);
        ExchangeStore store;
        std::istringstream in(request);
        std::ostringstream out;
        RecordingGate gate;
        ClientHandler(&store.env, &in, &out, &gate).Run();
        EXPECT_THAT(gate.kinds, IsEmpty());
    }
}

}  // namespace
}  // namespace korlo::settings::server
