#include "client/KorloSettingsClientImplSingleThreaded.h"

#include <future>
#include <stdexcept>
#include <vector>

#include <gmock/gmock.h>

#include "support/Callbacks.h"
#include "support/Documents.h"
#include "support/FakeConnection.h"
#include "support/Files.h"
#include "support/LogCapture.h"

namespace korlo::settings::client
{
namespace
{

using core::IniFile;
using testing::ElementsAre;
using testing::IsEmpty;

using Client = KorloSettingsClientImplSingleThreaded;

constexpr const char* GetA = "get delimited\nA\n.\n";
constexpr const char* LostMessage = "Failed to connect to korlo-settings-server";

/// Runs one get of the group "A".
std::string GetFrom(ConnectionScript& script)
{
    IniFile settings;
    Client(new FakeConnection(script)).GetSettings({"A"}, settings);
    return TextOf(settings);
}

TEST(KorloSettingsClientImplSingleThreadedTest, ConnectsWithTheFirstCommand)
{
    ConnectionScript script;
    {
        const Client client(new FakeConnection(script));
        EXPECT_THAT(script.retries, IsEmpty());
    }
    EXPECT_THAT(script.requests, IsEmpty());
}

TEST(KorloSettingsClientImplSingleThreadedTest, ReadsTheResponseOnTheCallersThread)
{
    ConnectionScript script{{"data\n[A]\nx=1\n.\n"}, {}, {}, 0};
    EXPECT_EQ(GetFrom(script), "[A]\nx=1\n");
    EXPECT_THAT(script.requests, ElementsAre(GetA));
    EXPECT_THAT(script.retries, ElementsAre(5));
}

TEST(KorloSettingsClientImplSingleThreadedTest, SkipsEveryLineBeforeTheAwaitedKeyword)
{
    ConnectionScript script{
        {"async change\nB\n.\n[B]\ny=2\n.\n\nresult\nok\n datax\nDATA\n  data and more\n[A]\nx=1\n.\n"}, {}, {}, 0};
    EXPECT_EQ(GetFrom(script), "[A]\nx=1\n");
    EXPECT_THAT(script.requests, ElementsAre(GetA));
}

TEST(KorloSettingsClientImplSingleThreadedTest, ACommandWithoutAResponseReturnsAfterSending)
{
    ConnectionScript script{{""}, {}, {}, 0};
    {
        Client client(new FakeConnection(script));
        client.MergeSettings(Ini("[A]\nx=1\n"), 0);
        client.MergeSettings(Ini("[A]\nx=1\n"), 1);
        client.OverwriteSettings({"A"}, IniFile());
        client.RestoreToDefaults({"A"});
    }
    EXPECT_THAT(script.requests, ElementsAre("merge\n[A]\nx=1\n.\nmerge nopersist\n[A]\nx=1\n.\n"
                                             "overwrite\nA\n.\n.\nrestore\nA\n.\n"));
    EXPECT_THAT(script.retries, ElementsAre(5, 5, 5, 5));
}

TEST(KorloSettingsClientImplSingleThreadedTest, TestAndMergeReturnsItsOutcome)
{
    ConnectionScript script{{"result\nok\nresult\nfailure\n"}, {}, {}, 0};
    Client client(new FakeConnection(script));
    EXPECT_TRUE(client.TestAndMerge(IniFile(), IniFile()));
    EXPECT_FALSE(client.TestAndMerge(IniFile(), IniFile()));
}

TEST(KorloSettingsClientImplSingleThreadedTest, SendsARequestAgainWhenItsResponseDidNotCome)
{
    const LogCapture log;
    ConnectionScript script{{"", "async change\n", "data\n[A]\nx=1\n.\n"}, {}, {}, 0};
    EXPECT_EQ(GetFrom(script), "[A]\nx=1\n");
    EXPECT_THAT(script.requests, ElementsAre(GetA, GetA, GetA));
    EXPECT_THAT(log.GetMessages(), IsEmpty());
}

TEST(KorloSettingsClientImplSingleThreadedTest, ATestAndMergeThatIsSentAgainReportsTheLastAttempt)
{
    // The first one was carried out, but its response was lost: so the second finds what the first has written.
    ConnectionScript script{{"", "result\nfailure\n"}, {}, {}, 0};
    Client client(new FakeConnection(script));
    EXPECT_FALSE(client.TestAndMerge(Ini("[A]\nx=1\n"), Ini("[A]\nx=2\n")));
}

TEST(KorloSettingsClientImplSingleThreadedTest, NothingOfAnAnswerThatWasCutReachesTheCaller)
{
    ConnectionScript script{{"data\n[A]\ncut=1\n", "data\n[A]\nx=1\n.\n"}, {}, {}, 0};
    EXPECT_EQ(GetFrom(script), "[A]\nx=1\n");
}

TEST(KorloSettingsClientImplSingleThreadedTest, AnOutcomeThatWasCutIsNone)
{
    ConnectionScript script{{"result\nok", "result\nfailure\n"}, {}, {}, 0};
    Client client(new FakeConnection(script));
    EXPECT_FALSE(client.TestAndMerge(Ini("[A]\nx=1\n"), Ini("[A]\nx=2\n")));
}

TEST(KorloSettingsClientImplSingleThreadedTest, FiveAttemptsEachConnectWithFiveRetries)
{
    const LogCapture log;
    ConnectionScript script;
    EXPECT_EQ(MessageOf([&] { GetFrom(script); }), LostMessage);
    EXPECT_THAT(script.retries, ElementsAre(5, 5, 5, 5, 5));
    EXPECT_THAT(log.GetMessages(),
                testing::AllOf(testing::SizeIs(5), testing::Each("3 KorloSettingsClient: nobody is there")));
}

TEST(KorloSettingsClientImplSingleThreadedTest, FiveLostResponsesAreOneFailure)
{
    const LogCapture log;
    ConnectionScript script{{"", "", "", "", "", "data\n.\n"}, {}, {}, 0};
    EXPECT_EQ(MessageOf([&] { GetFrom(script); }), LostMessage);
    EXPECT_THAT(script.requests, ElementsAre(GetA, GetA, GetA, GetA, GetA));
    EXPECT_THAT(log.GetMessages(), IsEmpty());
}

TEST(KorloSettingsClientImplSingleThreadedTest, ACallAfterAFailureStartsAfresh)
{
    const LogCapture log;
    ConnectionScript script{{"!", "!", "!", "!", "!", "!", "!", "!", "!", "data\n[A]\nx=1\n.\n"}, {}, {}, 0};
    const Client client(new FakeConnection(script));
    IniFile settings;
    EXPECT_EQ(MessageOf([&] { client.GetSettings({"A"}, settings); }), LostMessage);
    client.GetSettings({"A"}, settings);
    EXPECT_EQ(TextOf(settings), "[A]\nx=1\n");
    EXPECT_EQ(script.retries.size(), 10u);
}

TEST(KorloSettingsClientImplSingleThreadedTest, NeverClosesTheConnectionItself)
{
    ConnectionScript script{{"", "data\n.\n"}, {}, {}, 0};
    GetFrom(script);
    EXPECT_EQ(script.closeCount, 0);
}

TEST(KorloSettingsClientImplSingleThreadedTest, SubscribeIsRefusedAndLeavesTheClientUsable)
{
    ConnectionScript script{{"data\n[A]\nx=1\n.\n"}, {}, {}, 0};
    Client client(new FakeConnection(script));
    RecordingCallback callback;
    const std::string refusal = "KorloSettingsClient::Subscribe not supported in single threaded mode";
    EXPECT_EQ(MessageOf([&] { client.Subscribe(&callback, {"A"}); }), refusal);
    EXPECT_EQ(MessageOf([&] { client.Subscribe(&callback, {}); }), refusal);
    EXPECT_THAT(script.retries, IsEmpty());
    IniFile settings;
    client.GetSettings({"A"}, settings);
    EXPECT_EQ(TextOf(settings), "[A]\nx=1\n");
}

TEST(KorloSettingsClientImplSingleThreadedTest, ANameThatAListCannotCarryIsRefusedBeforeAnythingIsWritten)
{
    ConnectionScript script{{""}, {}, {}, 0};
    Client client(new FakeConnection(script));
    IniFile settings;
    const std::string refusal = "Group name '.' cannot be sent: it is a full stop or holds a line break";
    EXPECT_EQ(MessageOf([&] { client.GetSettings({"."}, settings); }), refusal);
    EXPECT_EQ(MessageOf([&] { client.OverwriteSettings({"."}, settings); }), refusal);
    EXPECT_EQ(MessageOf([&] { client.RestoreToDefaults({"."}); }), refusal);
    EXPECT_THAT(script.retries, IsEmpty());
}

/// A command that throws when its response is read.
class ThrowingCommand : public RemoteCommand
{
public:
    ThrowingCommand(const std::exception_ptr& pException, int times)
        : RemoteCommand("data"),
          _pException(pException),
          _times(times)
    {
    }

    void SendRequest(std::ostream& out) override { out << "get delimited\n.\n" << std::flush; }

    bool HandleResponse(std::istream&) override
    {
        if (_times-- > 0)
        {
            std::rethrow_exception(_pException);
        }
        return true;
    }

private:
    const std::exception_ptr _pException;
    int _times;
};

TEST(KorloSettingsClientImplSingleThreadedTest, OurOwnExceptionsCountAsAFailedAttempt)
{
    const LogCapture log;
    ConnectionScript script{{"data\n.\ndata\n.\n"}, {}, {}, 0};
    const Client client(new FakeConnection(script));
    ThrowingCommand command(std::make_exception_ptr(osa::Exception("a %s response", "strange")), 1);
    client.RunCommand("test", command);
    EXPECT_THAT(log.GetMessages(), ElementsAre("3 KorloSettingsClient: a strange response"));
}

TEST(KorloSettingsClientImplSingleThreadedTest, OtherExceptionsReachTheCallerAndReleaseTheClient)
{
    ConnectionScript script{{"data\n.\ndata\n[A]\nx=1\n.\n"}, {}, {}, 0};
    const Client client(new FakeConnection(script));
    ThrowingCommand command(std::make_exception_ptr(std::runtime_error("out of luck")), 1);
    EXPECT_THROW(client.RunCommand("test", command), std::runtime_error);
    IniFile settings;
    std::async(std::launch::async, [&] { client.GetSettings({"A"}, settings); }).get();
    EXPECT_EQ(TextOf(settings), "[A]\nx=1\n");
}

TEST(KorloSettingsClientImplSingleThreadedTest, ServesOneThreadAtATime)
{
    constexpr int threads = 4;
    constexpr int rounds = 50;
    std::string responses;
    for (int count = 0; count < threads * rounds; ++count)
    {
        responses += "data\n[A]\nx=1\n.\n";
    }
    ConnectionScript script{{responses}, {}, {}, 0};
    const Client client(new FakeConnection(script));
    std::vector<std::future<void>> callers;
    for (int caller = 0; caller < threads; ++caller)
    {
        callers.push_back(std::async(std::launch::async, [&client] {
            for (int round = 0; round < rounds; ++round)
            {
                IniFile settings;
                client.GetSettings({"A"}, settings);
                EXPECT_EQ(TextOf(settings), "[A]\nx=1\n");
            }
        }));
    }
    for (std::future<void>& caller : callers)
    {
        caller.get();
    }
}

}  // namespace
}  // namespace korlo::settings::client
