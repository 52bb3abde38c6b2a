// The server that saves by appending, as a program: what it leaves, and what it tells of its log.

#include <csignal>
#include <optional>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "saving/ChangeLog.h"
#include "support/Documents.h"
#include "support/Files.h"
#include "support/ServerProcess.h"
#include "support/TemporaryFolder.h"

namespace korlo::daemon
{
namespace
{

using testing::HasSubstr;

class ServerAppendTest : public testing::Test
{
protected:
    ServerProcess::Arguments Options(const ServerProcess::Arguments& more = {}) const
    {
        ServerProcess::Arguments options = {"--user", _user, "--control", _control, "--save-by", "append"};
        options.insert(options.end(), more.begin(), more.end());
        return options;
    }

    core::IniFile Ask(const std::string& request) const
    {
        RawClient client("unix:" + _control);
        client.Send(request + '\n');
        EXPECT_EQ(client.ReadLine(), "ok");
        return Ini(client.ReadBlock());
    }

    TemporaryFolder _folder;
    const std::string _user = _folder.PathOf("user.ini");
    const std::string _log = _user + ".log";
    const std::string _control = _folder.PathOf("control");
    const std::string _content = "[A]\nj=0\nk=0\n[B]\nk=0\n";
};

TEST_F(ServerAppendTest, TheLogOfAKilledServerCountsAndAnOrderlyEndFolds)
{
    WriteFile(_user, _content);
    {
        ServerProcess server(Options());
        EXPECT_TRUE(RawClient(server.GetPort()).TestAndMerge("", "[A]\nk=1\n"));
        server.End(SIGKILL);
    }
    EXPECT_EQ(ContentOf(_user), _content);
    {
        ServerProcess server(Options());
        RawClient client(server.GetPort());
        EXPECT_EQ(client.Get("*"), "[A]\nj=0\nk=1\n[B]\nk=0\n");
        EXPECT_TRUE(client.TestAndMerge("", "[A]\nk=2\n"));
        EXPECT_EQ(server.End(), 0);
        EXPECT_EQ(server.GetChild().GetErrors(), "");
    }
    EXPECT_EQ(ContentOf(_user), "[A]\nj=0\nk=2\n[B]\nk=0\n");
    EXPECT_EQ(ContentOf(_log), std::nullopt);
}

TEST_F(ServerAppendTest, AStartThatReplacesFoldsBeforeAnyClientIsServed)
{
    WriteFile(_user, _content);
    {
        ServerProcess server(Options());
        EXPECT_TRUE(RawClient(server.GetPort()).TestAndMerge("", "[A]\nk=1\n"));
        server.End(SIGKILL);
    }
    ServerProcess server({"--user", _user});
    EXPECT_EQ(ContentOf(_user), "[A]\nj=0\nk=1\n[B]\nk=0\n");
    EXPECT_EQ(ContentOf(_log), std::nullopt);
}

TEST_F(ServerAppendTest, TheStatusTellsOfTheLog)
{
    ServerProcess server(Options());
    RawClient client(server.GetPort());
    EXPECT_TRUE(client.TestAndMerge("", "[A]\nk=1\n"));
    EXPECT_TRUE(client.TestAndMerge("", "[A]\nk=2\n"));
    const core::IniFile status = Ask("status");
    EXPECT_EQ(status.GetValue("Saves", "log"), std::to_string(ContentOf(_log)->size()));
    EXPECT_EQ(status.GetValue("Saves", "logLimit"), "65536");
    EXPECT_EQ(status.GetValue("Saves", "folds"), "1") << "the first save writes the user file";
    EXPECT_EQ(status.GetValue("Saves", "saves"), "2");
}

TEST_F(ServerAppendTest, AnExplanationNamesTheLogAndItsLine)
{
    WriteFile(_user, _content);
    ServerProcess server(Options());
    RawClient client(server.GetPort());
    for (int value = 1; value < 4; ++value)
    {
        EXPECT_TRUE(client.TestAndMerge("", "[A]\nk=" + std::to_string(value) + '\n'));
    }
    client.Send("overwrite\nB\n.\n.\n");
    EXPECT_EQ(client.Get("B"), "");

    const core::IniFile changed = Ask("explain [A]k");
    EXPECT_EQ(changed.GetValue("Explain", "layer"), "user");
    EXPECT_EQ(changed.GetValue("Explain", "file"), _log);
    EXPECT_EQ(changed.GetValue("Explain", "line"), "10");
    EXPECT_EQ(changed.GetValue("Explain", "value"), "3");
    EXPECT_EQ(changed.GetValue("Candidate/1", "why"), "overridden by " + _log + ":10");
    EXPECT_FALSE(changed.HasGroup("Candidate/3")) << "of what the log says of a key the last counts";

    EXPECT_EQ(Ask("explain [A]j").GetValue("Explain", "file"), _user);

    const core::IniFile removed = Ask("explain [B]k");
    EXPECT_FALSE(removed.HasValue("Explain", "value"));
    EXPECT_EQ(removed.GetValue("Candidate/1", "why"), "removed by " + _log + ":11");
}

TEST_F(ServerAppendTest, ARecordOfAnErasedGroupIsFoundInTheLog)
{
    WriteFile(_folder.PathOf("defaults.ini"), "[B]\nk=0\n");
    WriteFile(_user, "[A]\nk=0\n");
    ServerProcess server(Options({"--defaults", _folder.PathOf("defaults.ini")}));
    RawClient client(server.GetPort());
    client.Send("overwrite\nB\n.\n.\n");
    EXPECT_EQ(client.Get("B"), "");
    EXPECT_EQ(Ask("explain [B]k").GetValue("Candidate/1", "why"),
              "erased: the record of erased groups has 1=B in line 4 of " + _log);
}

TEST_F(ServerAppendTest, ACheckTellsOfALogThatIsDamagedOrBelongsElsewhere)
{
    const auto check = [this] {
        ChildProcess child(ServerProcess::Command({"--user", _user, "--check"}));
        const int status = child.Wait();
        return std::to_string(status) + ' ' + child.GetErrors();
    };
    const std::string log =
        ChangeLog::FirstLineFor(ContentMark::Of(_content)) + ChangeLog::RecordOf({{}, Ini("[A]\nk=1\n")});
    WriteFile(_user, _content);
    WriteFile(_log, log);
    EXPECT_EQ(check(), "0 ");
    WriteFile(_log, log + "#chan");
    EXPECT_EQ(check(), "0 ") << "a cut record was never answered";
    WriteFile(_log, log + "damage\n");
    EXPECT_THAT(check(), testing::StartsWith("1 " + _log + ":5: damaged from here on"));
    WriteFile(_log, log);
    WriteFile(_user, "[A]\nk=5\n");
    EXPECT_THAT(check(), testing::StartsWith("1 " + _log + ":1: it belongs to another content"));
}

}  // namespace
}  // namespace korlo::daemon
