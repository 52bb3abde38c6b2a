#include "client/KorloSettingsClientImplMultiThreaded.h"

#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>

#include "client/KorloSettingsTcpConnection.h"
#include "korlo/osa/Exception.h"
#include "support/Callbacks.h"
#include "support/Documents.h"
#include "support/Files.h"
#include "support/LogWatch.h"
#include "support/ScriptedServer.h"

namespace korlo::settings::client
{
namespace
{

using namespace std::chrono_literals;
using core::IniFile;
using testing::ElementsAre;

using Client = KorloSettingsClientImplMultiThreaded;

constexpr const char* GetA = "get delimited\nA\n.\n";
constexpr const char* DataA = "data\n[A]\nx=1\n.\n";
constexpr const char* GetFailure = "GetSettings failed to communicate with korlo-settings-server";
constexpr const char* Stray = "3 KorloSettings: Message received without corresponding request";

/// A client whose server is played by the test.
class KorloSettingsClientImplMultiThreadedTest : public testing::Test
{
protected:
    KorloSettingsClientImplMultiThreadedTest()
    {
        core::Logger::GetLogger("KorloSettings")->SetThreshold(core::LogLevelInformation);
    }

    /// Lets the client go; a server that is still there answers to "quit".
    ~KorloSettingsClientImplMultiThreadedTest() override
    {
        auto farewell = std::async(std::launch::async, [this] {
            if (pPeer != nullptr)
            {
                for (std::string line = pPeer->Read(1); line != "quit\n" && !line.empty(); line = pPeer->Read(1))
                {
                }
                pPeer->Close();
            }
        });
        pClient.reset();
    }

    void Connect()
    {
        pClient = std::make_unique<Client>(new KorloSettingsTcpConnection);
        pPeer = server.Accept();
    }

    /// Ends the connection while nobody waits and plays the server of the next one.
    void Reconnect()
    {
        pPeer->Close();
        pPeer = server.Accept();
    }

    /// A get of the group "A" on a thread of its own: what it read, or what it threw.
    std::future<std::string> Get()
    {
        return std::async(std::launch::async, [this] {
            IniFile settings;
            const std::string failure = MessageOf([&] { pClient->GetSettings({"A"}, settings); });
            return failure.empty() ? TextOf(settings) : failure;
        });
    }

    /// A get that the server answers.
    void ExpectThatGetWorks(const std::string& value)
    {
        auto got = Get();
        ASSERT_EQ(pPeer->Read(3), GetA);
        pPeer->Send("data\n[A]\nx=" + value + "\n.\n");
        EXPECT_EQ(got.get(), "[A]\nx=" + value + "\n");
    }

    LogWatch log;
    ScriptedServer server;
    std::unique_ptr<ScriptedServer::Peer> pPeer;
    std::unique_ptr<Client> pClient;
};

TEST_F(KorloSettingsClientImplMultiThreadedTest, WritesTheRequestsOfTheProtocol)
{
    Connect();
    RecordingCallback callback;
    pClient->MergeSettings(Ini("[A]\nx=1\n"), 0);
    pClient->MergeSettings(Ini("[A]\nx=1\n"), 1);
    pClient->OverwriteSettings({"B", "A"}, Ini("[A]\nx=1\n"));
    pClient->RestoreToDefaults({"A*"});
    pClient->Subscribe(&callback, {"B*", "A"});
    pClient->Subscribe(&callback, {});
    EXPECT_EQ(pPeer->Read(4), "merge\n[A]\nx=1\n.\n");
    EXPECT_EQ(pPeer->Read(4), "merge nopersist\n[A]\nx=1\n.\n");
    EXPECT_EQ(pPeer->Read(7), "overwrite\nA\nB\n.\n[A]\nx=1\n.\n");
    EXPECT_EQ(pPeer->Read(3), "restore\nA*\n.\n");
    EXPECT_EQ(pPeer->Read(4), "subscribe\nA\nB*\n.\n");
    EXPECT_EQ(pPeer->Read(2), "subscribe\n.\n");
}

TEST_F(KorloSettingsClientImplMultiThreadedTest, HandsEachResponseToTheCallerThatWaits)
{
    Connect();
    ExpectThatGetWorks("1");
    for (const bool outcome : {true, false})
    {
        auto merged = std::async(std::launch::async, [this] { return pClient->TestAndMerge(IniFile(), IniFile()); });
        EXPECT_EQ(pPeer->Read(3), "test-and-merge\n.\n.\n");
        pPeer->Send(outcome ? "result\nok\n" : "result\nfailure\n");
        EXPECT_EQ(merged.get(), outcome);
    }
    ExpectThatGetWorks("2");
}

TEST_F(KorloSettingsClientImplMultiThreadedTest, OneCommandAtATimeAwaitsAResponse)
{
    Connect();
    auto first = Get();
    EXPECT_EQ(pPeer->Read(3), GetA);
    auto second = Get();
    pClient->RestoreToDefaults({"B"});  // goes past the one that waits
    EXPECT_EQ(pPeer->Read(3), "restore\nB\n.\n");
    pPeer->Send("data\n[A]\nx=1\n.\n");
    EXPECT_EQ(first.get(), "[A]\nx=1\n");
    EXPECT_EQ(pPeer->Read(3), GetA);
    pPeer->Send("data\n[A]\nx=2\n.\n");
    EXPECT_EQ(second.get(), "[A]\nx=2\n");
}

TEST_F(KorloSettingsClientImplMultiThreadedTest, ANotificationBetweenRequestAndResponseIsDeliveredFirst)
{
    Connect();
    std::future<std::string> got;
    std::promise<Change> seen;
    FunctionCallback callback([&](const GroupNameCollection& groups, const IniFile& settings) {
        EXPECT_EQ(got.wait_for(0s), std::future_status::timeout);
        seen.set_value({groups, settings});
    });
    pClient->Subscribe(&callback, {"A", "N*"});
    EXPECT_EQ(pPeer->Read(4), "subscribe\nA\nN*\n.\n");
    got = Get();
    EXPECT_EQ(pPeer->Read(3), GetA);
    pPeer->Send(std::string("async change\nB\nNet\n.\n[B]\ny=1\n[Net]\nlog.file=.\n.\n") + DataA);
    EXPECT_EQ(got.get(), "[A]\nx=1\n");
    EXPECT_EQ(seen.get_future().get(), (Change{{"Net"}, Ini("[B]\ny=1\n[Net]\nlog.file=.\n")}));
}

TEST_F(KorloSettingsClientImplMultiThreadedTest, AResponseWithAnotherKeywordFailsItsCaller)
{
    Connect();
    auto got = Get();
    EXPECT_EQ(pPeer->Read(3), GetA);
    pPeer->Send("result\nok\n");
    EXPECT_EQ(got.get(), GetFailure);
    EXPECT_TRUE(log.WaitFor("3 KorloSettings: GetSettings failed"));
    EXPECT_TRUE(log.WaitFor(Stray)) << "the rest of the response is read as ordinary lines";
    ExpectThatGetWorks("2");
}

TEST_F(KorloSettingsClientImplMultiThreadedTest, AStrayResponseLineIsDroppedAndFailsNobody)
{
    Connect();
    pPeer->Send("data\n");
    ASSERT_TRUE(log.WaitFor(Stray));
    pPeer->Send("   \n");  // not empty, but without a word
    ASSERT_TRUE(log.WaitFor(Stray, 2));
    ExpectThatGetWorks("1");
}

TEST_F(KorloSettingsClientImplMultiThreadedTest, AnEmptyLineEndsTheConnectionAndTheNextOneWorks)
{
    Connect();
    pPeer->Send("\n");
    EXPECT_TRUE(log.WaitFor("3 KorloSettings: Caught Unexpected empty line returned from tcp connection with "
                            "korlo-settings-server"));
    EXPECT_TRUE(pPeer->MeetsTheEnd());
    pPeer = server.Accept();
    EXPECT_EQ(Get().get(), GetFailure);
    ExpectThatGetWorks("1");
}

/// A command that does what the test says.
class FunctionCommand : public RemoteCommand
{
public:
    using Sender = std::function<void(std::ostream&)>;

    FunctionCommand(const char* keyword, Sender send, std::function<bool()> handle = {})
        : RemoteCommand(keyword),
          _send(std::move(send)),
          _handle(std::move(handle))
    {
    }

    void SendRequest(std::ostream& out) override { _send(out); }
    bool HandleResponse(std::istream&) override { return _handle(); }

private:
    const Sender _send;
    const std::function<bool()> _handle;
};

void SendHello(std::ostream& out)
{
    out << "hello\n" << std::flush;
}

void FailToSend(std::ostream& out)
{
    out.setstate(std::ios_base::badbit);
}

TEST_F(KorloSettingsClientImplMultiThreadedTest, AResponseThatCannotBeHandledIsAPlainNo)
{
    Connect();
    auto ran = std::async(std::launch::async, [this] {
        return pClient->RunCommand(
            "Hello", new FunctionCommand("world", SendHello, []() -> bool { throw std::runtime_error("it is flat"); }));
    });
    EXPECT_EQ(pPeer->Read(1), "hello\n");
    pPeer->Send("world peace\n");
    EXPECT_FALSE(ran.get());
    EXPECT_EQ(log.Count("3 KorloSettings: Exception handling response from server: it is flat"), 1);
    ExpectThatGetWorks("1");
}

TEST_F(KorloSettingsClientImplMultiThreadedTest, RunCommandReturnsWhatTheResponseSaid)
{
    Connect();
    for (const bool result : {true, false})
    {
        auto ran = std::async(std::launch::async, [this, result] {
            return pClient->RunCommand("Hello", new FunctionCommand("world", SendHello, [result] { return result; }));
        });
        EXPECT_EQ(pPeer->Read(1), "hello\n");
        pPeer->Send("world\n");
        EXPECT_EQ(ran.get(), result);
    }
    EXPECT_TRUE(pClient->RunCommand("Hello", new FunctionCommand("", SendHello)));
}

// Else the reader would wait for a caller that the answer has overtaken, as it often does on one core.
TEST_F(KorloSettingsClientImplMultiThreadedTest, AResponseIsHandledBeforeItsCallerIsBackFromTheWrite)
{
    Connect();
    for (const bool failsAfterwards : {false, true})
    {
        std::promise<void> handled;
        bool isHandled = false;
        auto ran = std::async(std::launch::async, [&] {
            return pClient->RunCommand(
                "Hello", new FunctionCommand(
                             "world",
                             [&](std::ostream& out) {
                                 SendHello(out);
                                 isHandled = handled.get_future().wait_for(10s) == std::future_status::ready;
                                 out.setstate(failsAfterwards ? std::ios_base::badbit : std::ios_base::goodbit);
                             },
                             [&handled] {
                                 handled.set_value();
                                 return true;
                             }));
        });
        EXPECT_EQ(pPeer->Read(1), "hello\n");
        pPeer->Send("world\n");
        EXPECT_TRUE(ran.get()) << "what the response said counts, whatever becomes of the connection";
        EXPECT_TRUE(isHandled);
        if (failsAfterwards)
        {
            Reconnect();
            EXPECT_EQ(Get().get(), GetFailure);
        }
        ExpectThatGetWorks("1");
    }
}

// The reader may find by itself that a request could not be sent, and then connects anew without being cut off. So each
// connection fails once.
TEST_F(KorloSettingsClientImplMultiThreadedTest, AConnectionThatIsLostWhileSendingFailsTheCall)
{
    Connect();
    for (const char* keyword : {"world", ""})
    {
        EXPECT_EQ(MessageOf([&] { pClient->RunCommand("Hello", new FunctionCommand(keyword, FailToSend)); }),
                  "Hello lost connection to korlo-settings-server");
        Reconnect();
        EXPECT_EQ(Get().get(), GetFailure) << "nobody waited when the connection broke";
        ExpectThatGetWorks("1");
    }
}

TEST_F(KorloSettingsClientImplMultiThreadedTest, AFailedRequestDropsTheConnectionThoughTheServerSaysNothing)
{
    Connect();
    EXPECT_NE(MessageOf([&] { pClient->RunCommand("Hello", new FunctionCommand("", FailToSend)); }), "");
    EXPECT_TRUE(pPeer->MeetsTheEnd());
    pPeer = server.Accept();
    EXPECT_EQ(Get().get(), GetFailure);
    ExpectThatGetWorks("1");
}

TEST_F(KorloSettingsClientImplMultiThreadedTest, HalfARequestIsNeverSentNorTheHeadOfAnother)
{
    Connect();
    for (const char* keyword : {"world", ""})
    {
        const auto sendHalf = [](std::ostream& out) {
            out << "merge\n[A]\n";
            throw std::bad_alloc();
        };
        EXPECT_THROW(pClient->RunCommand("Hello", new FunctionCommand(keyword, sendHalf)), std::bad_alloc);
        EXPECT_TRUE(pPeer->MeetsTheEnd());
        pPeer = server.Accept();
        EXPECT_EQ(Get().get(), GetFailure);
        ExpectThatGetWorks("1");
    }
}

TEST_F(KorloSettingsClientImplMultiThreadedTest, AConnectionThatIsLostWhileWaitingFailsTheCallAndNoOther)
{
    Connect();
    auto got = Get();
    EXPECT_EQ(pPeer->Read(3), GetA);
    Reconnect();
    EXPECT_EQ(got.get(), GetFailure);
    EXPECT_EQ(log.Count("6 KorloSettings: cleaning request queue"), 1);
    ExpectThatGetWorks("1");
    ExpectThatGetWorks("2");
}

TEST_F(KorloSettingsClientImplMultiThreadedTest, ACallerThatWaitsForTheOneWhichFailsIsServedByTheNextConnection)
{
    Connect();
    auto first = Get();
    EXPECT_EQ(pPeer->Read(3), GetA);
    auto second = Get();
    Reconnect();
    EXPECT_EQ(pPeer->Read(3), GetA);
    pPeer->Send(DataA);
    EXPECT_THAT((std::vector{first.get(), second.get()}), testing::UnorderedElementsAre(GetFailure, "[A]\nx=1\n"));
}

TEST_F(KorloSettingsClientImplMultiThreadedTest, AConnectionLostWhileIdleFailsExactlyOneLaterCallWhichSendsNothing)
{
    Connect();
    ExpectThatGetWorks("1");
    Reconnect();
    pClient->MergeSettings(IniFile(), 0);  // awaits nothing, so it meets nothing
    EXPECT_EQ(pPeer->Read(2), "merge\n.\n");
    EXPECT_EQ(Get().get(), GetFailure);
    EXPECT_EQ(log.Count("3 KorloSettings: GetSettings failed"), 1);
    ExpectThatGetWorks("2");
    ExpectThatGetWorks("3");
    auto merged = std::async(std::launch::async, [this] { return pClient->TestAndMerge(IniFile(), IniFile()); });
    EXPECT_EQ(pPeer->Read(3), "test-and-merge\n.\n.\n");
    pPeer->Send("result\nok\n");
    EXPECT_TRUE(merged.get());
}

TEST_F(KorloSettingsClientImplMultiThreadedTest, TwoIdleDisconnectsInARowAreLoggedAndTheClientGoesOn)
{
    Connect();
    RecordingCallback first;
    std::promise<void> seen;
    FunctionCallback second([&seen](const GroupNameCollection&, const IniFile&) { seen.set_value(); });
    pClient->Subscribe(&first, {"B*", "A"});
    pClient->Subscribe(&second, {"A", "C"});
    EXPECT_EQ(pPeer->Read(8), "subscribe\nA\nB*\n.\nsubscribe\nA\nC\n.\n");
    Reconnect();
    EXPECT_EQ(pPeer->Read(5), "subscribe\nA\nB*\nC\n.\n");
    Reconnect();
    EXPECT_EQ(pPeer->Read(5), "subscribe\nA\nB*\nC\n.\n");
    EXPECT_EQ(log.Count("3 KorloSettings: Caught Message Queue Is Full"), 1);
    EXPECT_EQ(log.Count("6 KorloSettings: Resubscribing 3 groups"), 2);
    EXPECT_EQ(Get().get(), GetFailure);
    ExpectThatGetWorks("1");
    pPeer->Send("async change\nC\n.\n[C]\nz=1\n.\n");
    EXPECT_EQ(seen.get_future().wait_for(30s), std::future_status::ready);
}

TEST_F(KorloSettingsClientImplMultiThreadedTest, CallersWaitForTheSubscriptionsOfANewConnection)
{
    Connect();
    RecordingCallback callback;
    pClient->Subscribe(&callback, {"A"});
    EXPECT_EQ(pPeer->Read(3), "subscribe\nA\n.\n");
    pPeer->Close();
    EXPECT_TRUE(log.WaitFor("6 KorloSettings: (re)Connecting to korlo-setting server", 2));
    auto merged = std::async(std::launch::async, [this] { pClient->MergeSettings(IniFile(), 0); });
    pPeer = server.Accept();
    EXPECT_EQ(pPeer->Read(5), "subscribe\nA\n.\nmerge\n.\n");
    merged.get();
}

TEST_F(KorloSettingsClientImplMultiThreadedTest, ANotificationThatIsCutOffIsNotDelivered)
{
    const std::string notification = "async change\nA\n.\n[A]\nx=1\n.\n";
    Connect();
    RecordingCallback callback;
    pClient->Subscribe(&callback, {"A"});
    EXPECT_EQ(pPeer->Read(3), "subscribe\nA\n.\n");
    pPeer->Send(notification.substr(0, notification.size() - 1));
    Reconnect();
    EXPECT_EQ(pPeer->Read(3), "subscribe\nA\n.\n");
    EXPECT_TRUE(callback.GetChanges().empty());
}

TEST_F(KorloSettingsClientImplMultiThreadedTest, ACallbackThatThrowsCostsTheConnectionAndNotTheClient)
{
    Connect();
    bool thrown = false;
    std::promise<void> calledAgain;
    FunctionCallback callback([&](const GroupNameCollection&, const IniFile&) {
        if (!thrown)
        {
            thrown = true;
            throw std::runtime_error("I do not like it");
        }
        calledAgain.set_value();
    });
    pClient->Subscribe(&callback, {"A"});
    EXPECT_EQ(pPeer->Read(3), "subscribe\nA\n.\n");
    pPeer->Send("async change\nA\n.\n.\n");
    EXPECT_TRUE(log.WaitFor("3 KorloSettings: Caught I do not like it"));
    EXPECT_TRUE(pPeer->MeetsTheEnd());
    pPeer = server.Accept();
    EXPECT_EQ(pPeer->Read(3), "subscribe\nA\n.\n");
    pPeer->Send("async change\nA\n.\n.\n");
    EXPECT_EQ(calledAgain.get_future().wait_for(30s), std::future_status::ready);
}

TEST_F(KorloSettingsClientImplMultiThreadedTest, ANameThatAListCannotCarryIsRefusedBeforeAnythingIsWritten)
{
    Connect();
    RecordingCallback callback;
    IniFile settings;
    const std::string refusal = "Group name 'a\nquit' cannot be sent: it is a full stop or holds a line break";
    const GroupNameCollection groups{"B", "a\nquit"};
    EXPECT_EQ(MessageOf([&] { pClient->GetSettings(groups, settings); }), refusal);
    EXPECT_EQ(MessageOf([&] { pClient->OverwriteSettings(groups, settings); }), refusal);
    EXPECT_EQ(MessageOf([&] { pClient->RestoreToDefaults(groups); }), refusal);
    EXPECT_EQ(MessageOf([&] { pClient->Subscribe(&callback, groups); }), refusal);
    EXPECT_EQ(MessageOf([&] { pClient->Subscribe(nullptr, {"A"}); }), "callback was NULL");
    ExpectThatGetWorks("1");
    Reconnect();
    pClient->MergeSettings(IniFile(), 0);
    EXPECT_EQ(pPeer->Read(2), "merge\n.\n") << "a refused subscription must not come back";
}

TEST_F(KorloSettingsClientImplMultiThreadedTest, LogsItsStatesAndOperations)
{
    core::Logger::GetLogger("KorloSettings")->SetThreshold(core::LogLevelTrace);
    Connect();
    RecordingCallback callback;
    pClient->Subscribe(&callback, {"A"});
    pClient->MergeSettings(IniFile(), 0);
    pClient->OverwriteSettings({}, IniFile());
    pClient->RestoreToDefaults({});
    EXPECT_THAT(log.GetMessages(), testing::UnorderedElementsAre(
                                       "6 KorloSettings: (re)Connecting to korlo-setting server",
                                       "6 KorloSettings: Connected to korlo-settings-server, releasing semaphore",
                                       "8 KorloSettings: Subscribe", "8 KorloSettings: MergeSettings",
                                       "8 KorloSettings: OverwriteSettings", "8 KorloSettings: RestoreToDefaults"));
}

TEST_F(KorloSettingsClientImplMultiThreadedTest, WithTheServerAbsentAnOperationFailsAfterTenSeconds)
{
    server.Close();
    const auto start = std::chrono::steady_clock::now();
    pClient = std::make_unique<Client>(new KorloSettingsTcpConnection);
    EXPECT_LT(std::chrono::steady_clock::now() - start, 5s);
    EXPECT_THROW(pClient->MergeSettings(IniFile(), 0), osa::LockException);
    EXPECT_GE(std::chrono::steady_clock::now() - start, 10s);
    EXPECT_GE(log.Count("4 KorloSettings: Connect() failed: Failed to connect to korlo-settings-server"), 1);
    EXPECT_GE(log.Count("4 KorloSettings: Attempting to reconnect in 1 second"), 1);
}

TEST_F(KorloSettingsClientImplMultiThreadedTest, TheDestructorSaysQuit)
{
    Connect();
    pClient->MergeSettings(IniFile(), 0);
    EXPECT_EQ(pPeer->Read(2), "merge\n.\n");
    auto gone = std::async(std::launch::async, [this] { pClient.reset(); });
    EXPECT_EQ(pPeer->Read(1), "quit\n");
    pPeer->Close();
    EXPECT_EQ(gone.wait_for(30s), std::future_status::ready);
}

TEST_F(KorloSettingsClientImplMultiThreadedTest, AServerThatDoesNotAnswerToQuitKeepsNobodyWaiting)
{
    Connect();
    pClient->MergeSettings(IniFile(), 0);
    auto gone = std::async(std::launch::async, [this] { pClient.reset(); });
    ASSERT_EQ(gone.wait_for(30s), std::future_status::ready);
    EXPECT_EQ(pPeer->Read(3), "merge\n.\nquit\n");
    EXPECT_TRUE(pPeer->MeetsTheEnd());
}

TEST_F(KorloSettingsClientImplMultiThreadedTest, TheDestructorEndsThePauseBetweenAttempts)
{
    server.Close();
    pClient = std::make_unique<Client>(new KorloSettingsTcpConnection);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(log.WaitFor("4 KorloSettings: Attempting to reconnect in 1 second"));
    pClient.reset();
    EXPECT_LT(std::chrono::steady_clock::now() - start, 8s);
}

}  // namespace
}  // namespace korlo::settings::client
