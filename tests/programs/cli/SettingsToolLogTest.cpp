// korlo-settings log, at a door that the test plays and at a real server.

#include <regex>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "FakeDoor.h"
#include "ToolFixture.h"
#include "support/Files.h"
#include "support/ServerProcess.h"

namespace korlo::settings::cli
{
namespace
{

using testing::AllOf;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

constexpr const char* Answer = "ok\n"
                               "[Change/0000000007]\ncount=12\ngroup.1=Audio\nkey.1=[Audio]volume\n"
                               "operation=merge\noutcome=done\npeer=192.0.2.1:4000\ntime=2026-11-22T04:26:32.007Z\n"
                               "[Change/0000000008]\ncount=1\ngroup.1=Audio\ngroup.2=\"a]b\"\ngroup.3=Net\n"
                               "key.1=[Audio]volume\nkey.2=\"[\\\"a]b\\\"]x\\n\"\nmore=3\nmore.groups=1\n"
                               "operation=overwrite\noutcome=failed\npeer=unix:/run/korlo-settings/socket\npid=812\n"
                               "program=\"php\\x1B\"\ntime=2026-11-22T04:26:33.100Z\nuser=www-data\n"
                               "[Change/0000000009]\ncount=2\ngroup.1=Net*\noperation=restore\noutcome=refused\n"
                               "peer=unix:/run/korlo-settings/socket\npid=9\nprogram=tool\n"
                               "time=2026-11-22T04:26:34.000Z\n"
                               ".\n";

constexpr const char* First = "2026-11-22T04:26:32.007Z  192.0.2.1:4000  merge  [Audio]volume  (12 times)\n";
constexpr const char* Second = "2026-11-22T04:26:33.100Z  user www-data, pid 812 (\"php\\x1B\")  overwrite failed  "
                               "[Audio]volume, [\"a]b\"]\"x\\n\", [Net] and 3 more\n";
constexpr const char* Third = "2026-11-22T04:26:34.000Z  user unknown, pid 9 (tool)  restore refused  [Net*]  "
                              "(2 times)\n";

class SettingsToolLogTest : public ToolTest
{
protected:
    ToolResult Log(const Arguments& arguments = {}, const std::string& answer = Answer,
                   std::vector<std::string>* pRequests = nullptr) const
    {
        const FakeDoor door(_door, answer, FakeDoor::Close);
        Arguments command = {"--control", _door, "log"};
        command.insert(command.end(), arguments.begin(), arguments.end());
        const ToolResult result = Run(command);
        if (pRequests != nullptr)
        {
            *pRequests = door.GetRequests();
        }
        return result;
    }

    const std::string _door = _folder.PathOf("control");
};

TEST_F(SettingsToolLogTest, PrintsALineForEachChangeNewestLast)
{
    ExpectResult(Log(), 0, std::string(First) + Second + Third);
}

TEST_F(SettingsToolLogTest, PatternsSelectByGroup)
{
    const std::string whole = "ok\n[Change/0000000001]\ncount=1\ngroup.1=A\nkey.1=[A]x\noperation=merge\noutcome=done\n"
                              "time=T\n[Change/0000000002]\ncount=1\ngroup.1=B\ngroup.2=C/D\noperation=merge\n"
                              "outcome=done\ntime=T\n.\n";
    ExpectResult(Log({"C/*"}, whole), 0, "T  the server itself  merge  [B], [C/D]\n");
    ExpectResult(Log({"A", "X"}, whole), 0, "T  the server itself  merge  [A]x\n");
    ExpectResult(Log({"X"}, whole), 0, "");
}

TEST_F(SettingsToolLogTest, AnEntryWhoseGroupsAreLeftOutMayBeAboutAnyGroup)
{
    ExpectResult(Log({"Elsewhere"}), 0, Second);
}

TEST_F(SettingsToolLogTest, CountTakesTheLastThatAreSelected)
{
    std::vector<std::string> requests;
    ExpectResult(Log({"--count", "1"}, Answer, &requests), 0, Third);
    EXPECT_THAT(requests, testing::ElementsAre("journal 1"));
    ExpectResult(Log({"Audio", "--count", "1"}, Answer, &requests), 0, Second);
    EXPECT_THAT(requests, testing::ElementsAre("journal"));
}

TEST_F(SettingsToolLogTest, PrintsAnObjectALineAsJson)
{
    const ToolResult result = Log({"--json"});
    EXPECT_EQ(result.status, 0);
    const std::string second = result.output.substr(result.output.find('\n') + 1);
    EXPECT_EQ(second.substr(0, second.find('\n')),
              R"({"count":1,"groups":["Audio","a]b","Net"],"keys":{"Audio":["volume"],"a]b":["x\n"]},"more":3,)"
              R"("more.groups":1,"number":8,"operation":"overwrite","outcome":"failed",)"
              R"("peer":"unix:/run/korlo-settings/socket","pid":812,"program":"php\u001b",)"
              R"("time":"2026-11-22T04:26:33.100Z","user":"www-data"})");
    EXPECT_THAT(result.output, AllOf(HasSubstr(R"("pid":null,"program":null,)"), HasSubstr(R"("user":null})")));
}

TEST_F(SettingsToolLogTest, AnEmptyJournalPrintsNothing)
{
    ExpectResult(Log({}, "ok\n.\n"), 0, "");
}

TEST_F(SettingsToolLogTest, TellsOfEntriesThatItHasMissed)
{
    const std::string entry = "]\ncount=1\ngroup.1=A\noperation=merge\noutcome=done\ntime=T\n";
    const ToolResult result =
        Log({}, "ok\n[Change/0000000003" + entry + "[Change/0000000005" + entry + "[Change/0000000009" + entry + ".\n");
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.errors, "korlo-settings: the journal no longer has 4 of the entries between 3 and 9\n");
}

TEST_F(SettingsToolLogTest, FollowsAnswerByAnswerUntilTheServerEnds)
{
    const std::string entry = "]\ncount=1\ngroup.1=A\noperation=merge\noutcome=done\ntime=T\n";
    std::vector<std::string> requests;
    const ToolResult result =
        Log({"--follow", "--count", "1"},
            "ok\n[Change/0000000001" + entry + "[Change/0000000002" + entry + ".\nok\n[Change/0000000001" + entry +
                "[Change/0000000003" + entry + ".\nok\n[Change/0000000006" + entry + ".\n",
            &requests);
    EXPECT_THAT(requests, testing::ElementsAre("follow 0"));
    const std::string line = "T  the server itself  merge  [A]\n";
    EXPECT_EQ(result.output, line + line + line + line);
    EXPECT_EQ(result.status, 3);
    EXPECT_EQ(result.errors, "korlo-settings: the journal no longer has 2 of the entries between 3 and 6\n"
                             "korlo-settings: failed to ask the server's control door '" +
                                 _door + "': it ended the connection\n");
}

TEST_F(SettingsToolLogTest, AnswersThatMakeNoSenseAreStatusThree)
{
    for (const char* answer :
         {"ok\n[Other]\nk=v\n.\n", "ok\n[Change/x]\n.\n", "ok\n[Change/1]\nkey.1=x\n.\n",
          "ok\n[Change/1]\nkey.1=\"[\\\"x\"\n.\n", "ok\n[Change/1]\ncount=x\n.\n", "error no journal\n", "ok\n", ""})
    {
        SCOPED_TRACE(answer);
        const ToolResult result = Log({}, answer);
        EXPECT_EQ(result.status, 3);
        EXPECT_THAT(result.output, IsEmpty());
        EXPECT_THAT(result.errors, Not(IsEmpty()));
    }
}

TEST_F(SettingsToolLogTest, WithoutADoorTheStatusIsThree)
{
    for (const Arguments& arguments : {Arguments{"log"}, Arguments{"log", "--follow"}})
    {
        Arguments command = {"--control", _door};
        command.insert(command.end(), arguments.begin(), arguments.end());
        ExpectResult(Run(command), 3, "", HasSubstr("failed to reach the server's control door"));
    }
}

TEST_F(SettingsToolLogTest, AWrongCountIsStatusTwo)
{
    EXPECT_EQ(Run({"log", "--count", "0"}).status, 2);
    EXPECT_EQ(Run({"log", "--nothing"}).status, 2);
}

/// A real server, and the tool at its door.
class ServerLogTest : public ToolTest
{
protected:
    ServerProcess::Arguments Options(const ServerProcess::Arguments& more = {}) const
    {
        ServerProcess::Arguments options = {"--user", _folder.PathOf("user.ini"), "--control", _door};
        options.insert(options.end(), more.begin(), more.end());
        return options;
    }

    ToolResult Log(const Arguments& arguments = {}) const
    {
        Arguments command = {"--control", _door, "log"};
        command.insert(command.end(), arguments.begin(), arguments.end());
        return Run(command);
    }

    std::string Ask(const std::string& request) const
    {
        RawClient client("unix:" + _door);
        client.Send(request + '\n');
        client.ReadLine();
        return client.ReadBlock();
    }

    const std::string _door = _folder.PathOf("control");
};

TEST_F(ServerLogTest, FindsAPersonsChangeAmongThoseOfABusyProgram)
{
    ServerProcess server(Options());
    RawClient person(server.GetPort());
    RawClient program(server.GetPort());
    person.Send("merge\n[Audio]\nvolume=65\n.\n");
    person.Get("Audio");
    std::string changes;
    for (int i = 0; i < 300; ++i)
    {
        changes += "merge nopersist\n[Counters]\nvalue=" + std::to_string(i) + "\n.\n";
    }
    program.Send(changes);
    program.Get("Counters");
    const ToolResult result = Log();
    EXPECT_TRUE(std::regex_match(
        result.output,
        std::regex(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z  127\.0\.0\.1:\d+  merge  \[Audio\]volume\n)"
                   R"(\S+  127\.0\.0\.1:\d+  merge nopersist  \[Counters\]value  \(300 times\)\n)")))
        << result.output;
    EXPECT_EQ(result.status, 0);
}

TEST_F(ServerLogTest, NamesTheUserAndTheProgramOfAUnixClient)
{
    ServerProcess server(Options({"--listen", "unix:" + PathOf("socket")}));
    ASSERT_EQ(Run({"--server", "unix:" + PathOf("socket"), "set", "[Audio]volume", "65"}).status, 0);
    const auto entry = nlohmann::json::parse(Log({"--json"}).output);
    EXPECT_EQ(entry["peer"], "unix:" + PathOf("socket"));
    EXPECT_TRUE(entry["user"].is_string());
    EXPECT_GT(entry["pid"].get<int>(), 0);
    EXPECT_TRUE(entry["program"].is_string());
    EXPECT_EQ(entry["keys"]["Audio"], (std::vector<std::string>{"volume"}));
}

TEST_F(ServerLogTest, FollowingEndsWithTheServer)
{
    ServerProcess server(Options());
    ChildProcess follower(Command({"--control", _door, "log", "--follow"}));
    follower.CloseInput();
    RawClient client(server.GetPort());
    client.Send("merge\n[A]\nx=1\n.\n");
    follower.AwaitOutput("[A]x\n");
    client.Send("merge\n[A]\nx=2\n.\n");
    follower.AwaitOutput("(2 times)\n");
    EXPECT_EQ(server.End(), 0);
    EXPECT_EQ(follower.Wait(), 3);
    EXPECT_THAT(follower.GetErrors(), HasSubstr("it ended the connection"));
}

TEST_F(ServerLogTest, ASignalEndsFollowingWithStatusZero)
{
    ServerProcess server(Options());
    RawClient(server.GetPort()).Send("merge\n[A]\nx=1\n.\n");
    ASSERT_TRUE(Eventually([&] { return !Log().output.empty(); }));
    for (const int signal : {SIGINT, SIGTERM})
    {
        ChildProcess follower(Command({"--control", _door, "log", "--follow"}));
        follower.AwaitOutput("[A]x\n");
        follower.Signal(signal);
        EXPECT_EQ(follower.Wait(), 0);
        EXPECT_EQ(follower.GetErrors(), "");
    }
}

TEST_F(ServerLogTest, JournalZeroKeepsNone)
{
    ServerProcess server(Options({"--journal", "0"}));
    ExpectResult(Log(), 3, "", HasSubstr("--journal 0"));
}

TEST_F(ServerLogTest, JournalSaysHowManyEntriesAreKept)
{
    ServerProcess server(Options({"--journal", "2"}));
    RawClient client(server.GetPort());
    client.Send("merge\n[A]\nx=1\n.\nmerge\n[B]\nx=1\n.\nmerge\n[C]\nx=1\n.\n");
    client.Get("C");
    EXPECT_THAT(Log().output, AllOf(Not(HasSubstr("[A]x")), HasSubstr("[B]x\n"), HasSubstr("[C]x\n")));
}

TEST_F(ServerLogTest, ASaveThatFailsIsEntered)
{
    const std::string folder = _folder.PathOf("layer");
    std::filesystem::create_directory(folder);
    ServerProcess server({"--user", folder + "/user.ini", "--control", _door});
    std::filesystem::remove_all(folder);
    RawClient client(server.GetPort());
    client.Send("merge\n[A]\nx=1\n.\n");
    EXPECT_TRUE(client.MeetsTheEnd());
    EXPECT_THAT(Log().output, HasSubstr("  merge failed  [A]x\n"));
}

TEST_F(ServerLogTest, NoValueIsFoundInAnyByteOfItWhateverWayItTook)
{
    const std::string secret = "Xyzzy-5up3r";
    ServerProcess server(
        Options({"--defaults", Write("defaults.ini", "[Default]\nk=" + secret + "\n"), "--restricted",
                 Write("restricted.ini", "[WifiSecure]\nk=" + secret + "\n"), "--access",
                 Write("rules.ini", "[Access/tcp]\npeer=tcp\nread=Open*\nchange=Default,A*\n"), "--log-level", "4"}));
    ChildProcess follower(Command({"--control", _door, "log", "--follow", "--json"}));
    RawClient client(server.GetPort());
    const std::string document = "[A]\nk=" + secret + "\n.\n";
    const std::string hidden = "[Private]\nk=" + secret + "\n.\n";
    client.Send("merge\n" + document + "merge\n" + hidden);
    client.Send("merge nopersist\n[A]\nk=" + secret + "2\n.\nmerge nopersist\n" + hidden);
    client.Send("test-and-merge\n[A]\nk=" + secret + "2\n.\n" + document);
    client.Send("test-and-merge\n" + document + "[A]\nk=" + secret + "4\n.\n");
    client.Send("test-and-merge\n" + hidden + document);
    client.Send("overwrite\nA\nDefault\n.\n[A]\nk=" + secret + "5\n.\n");
    client.Send("overwrite\nPrivate\n.\n" + hidden);
    client.Send("restore\nDefault\n.\nrestore\nPrivate\n.\n");
    client.Send("merge\n[A]\nthis is no line " + secret + "\n.\nmerge\n[WifiSecure]\nk=" + secret + "\n.\n");
    client.Send("get delimited\nA\n.\n");
    client.ReadUntil("data");
    EXPECT_EQ(client.ReadBlock(), "[A]\nk=" + secret + "5\n");
    const std::string journal = Ask("journal");
    std::string seen = journal + Log().output + Log({"--json"}).output;
    EXPECT_THAT(journal, AllOf(HasSubstr("operation=merge\n"), HasSubstr("merge nopersist"),
                               HasSubstr("test-and-merge"), HasSubstr("overwrite"), HasSubstr("restore"),
                               HasSubstr("outcome=refused"), HasSubstr("key.1=[A]k\n")));
    follower.AwaitOutput("restore");
    EXPECT_EQ(server.End(), 0);
    follower.Wait();
    seen += follower.GetOutput() + follower.GetErrors();
    EXPECT_THAT(seen, Not(HasSubstr(secret)));
    EXPECT_THAT(server.GetChild().GetErrors(), Not(HasSubstr(secret)));
}

}  // namespace
}  // namespace korlo::settings::cli
