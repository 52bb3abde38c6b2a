// Each example does what it is there to show, as a process of its own.

#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/Files.h"
#include "support/ServerProcess.h"
#include "support/TemporaryFolder.h"

namespace korlo::examples
{
namespace
{

using testing::HasSubstr;
using testing::Not;
using Arguments = std::vector<std::string>;

class ExamplesTest : public testing::Test
{
protected:
    static Arguments Command(const std::string& program)
    {
        Arguments command;
        std::istringstream emulator(KORLO_EMULATOR);
        for (std::string word; emulator >> word;)
        {
            command.push_back(word);
        }
        command.push_back(std::string(KORLO_EXAMPLE_PROGRAMS) + "/example-" + program);
        return command;
    }

    /// The command of an example that speaks to the server of the test.
    Arguments CommandWithServer(const std::string& program, const Arguments& operands = {}) const
    {
        Arguments command = Command(program);
        command.insert(command.end(), {"--server", "127.0.0.1:" + std::to_string(server.GetPort())});
        command.insert(command.end(), operands.begin(), operands.end());
        return command;
    }

    /// Merges through a client of the test's own, and returns when the server has done it.
    void Change(const std::string& settings) { ASSERT_TRUE(client.TestAndMerge("", settings)); }

    /// Waits until the server has the subscription: what changes from then on is told.
    void AwaitSubscriber(const std::string& nameOrPattern)
    {
        EXPECT_TRUE(Eventually([&] {
            client.Send("info subscribed\n");
            return client.ReadUntil("").find('\n' + nameOrPattern + '\n') != std::string::npos;
        })) << nameOrPattern;
    }

    static void ExpectEndInOrder(ChildProcess& example)
    {
        example.Signal(SIGTERM);
        EXPECT_EQ(example.Wait(), 0) << example.GetErrors();
    }

    TemporaryFolder folder;
    ServerProcess server{{"--defaults", KORLO_EXAMPLES "/device.ini", "--defaults", KORLO_EXAMPLES "/budget.ini",
                          "--user", folder.PathOf("user.ini")}};
    RawClient client{server.GetPort()};
};

TEST_F(ExamplesTest, FirstStepsReadsChangesCountsAndHears)
{
    ChildProcess example(CommandWithServer("first-steps"));
    example.AwaitOutput("start number 1\n");
    example.AwaitOutput("volume is now 65\n");
    EXPECT_THAT(example.GetOutput(), HasSubstr("ringtone '  chime  ', 4 networks\n"));
    EXPECT_THAT(client.Get("Network/Wifi"), HasSubstr("ssid=Workshop\n"));

    Change("[Audio]\nvolume=12\n");

    example.AwaitOutput("volume is now 12\n");
    ChildProcess second(CommandWithServer("first-steps"));
    second.AwaitOutput("start number 2\n");
    ExpectEndInOrder(second);
    ExpectEndInOrder(example);
}

TEST_F(ExamplesTest, VariablesFollowTheirSettings)
{
    ChildProcess example(CommandWithServer("follow-settings"));
    example.AwaitOutput("volume 40, echo cancelling on, ringtone '  chime  '\n");
    AwaitSubscriber("Audio");

    Change("[Audio]\nvolume=55\nechoCancel=0\n");

    example.AwaitOutput("volume 55, echo cancelling off, ringtone '  chime  '\n");
    ExpectEndInOrder(example);
}

TEST_F(ExamplesTest, AProgramWithoutAServerTakesTheLocalFile)
{
    ChildProcess example(Command("follow-settings"), {{"KORLO_SETTINGS_LOCALFILE", KORLO_EXAMPLES "/device.ini"}});
    example.AwaitOutput("volume 40, echo cancelling on, ringtone '  chime  '\n");
    ExpectEndInOrder(example);
}

TEST_F(ExamplesTest, ADocumentMirrorsItsGroups)
{
    ChildProcess example(CommandWithServer("mirror-groups", {"Network/W*", "Network/Time"}));
    example.AwaitOutput("2 groups\n[Network/Time]\ninterval=3600\n");
    AwaitSubscriber("Network/W*");

    Change("[Network/Wired]\nport=2\n[Audio]\nvolume=1\n");
    example.AwaitOutput("3 groups\n[Network/Time]\n");
    example.AwaitOutput("[Network/Wired]\nport=2\nend\n");

    client.Send("overwrite\nNetwork/Wi*\n.\n.\n");
    example.AwaitOutput("1 groups\n[Network/Time]\n");
    EXPECT_THAT(example.GetOutput(), Not(HasSubstr("Audio")));
    ExpectEndInOrder(example);
}

class LogExampleTest : public ExamplesTest
{
protected:
    std::string GroupText(int level, const std::string& file) const
    {
        return "[Log/Doorbell]\nlog.level=" + std::to_string(level) +
               "\nlog.syslog=0\nlog.file=" + folder.PathOf(file) + '\n';
    }

    bool Holds(const std::string& file, const std::string& text) const
    {
        return ContentOf(folder.PathOf(file)).value_or("").find(text) != std::string::npos;
    }

    /// The messages of a file, each after a time and the process; a line of any other form fails the test.
    std::vector<std::string> Messages(const std::string& file) const
    {
        std::ifstream stream(folder.PathOf(file));
        std::vector<std::string> messages;
        for (std::string line; std::getline(stream, line);)
        {
            EXPECT_THAT(line, testing::MatchesRegex("[0-9T:.Z-]+ example-log-as-told\\[[0-9]+\\] .*"));
            messages.push_back(line.substr(line.find("] ") + 2));
        }
        return messages;
    }

    /// As opposed to what the libraries have to say, which may repeat itself.
    static bool OfTheApplication(const std::string& message)
    {
        return message.find(" Doorbell: ") != std::string::npos || message.find(" Camera: ") != std::string::npos;
    }
};

TEST_F(LogExampleTest, TheLogMovesAndItsLevelChangesWhileTheProcessRuns)
{
    Change(GroupText(1, "first.log"));
    ChildProcess example(CommandWithServer("log-as-told", {folder.GetPath()}));
    example.AwaitOutput("ready\n");
    AwaitSubscriber("Log/Doorbell");
    EXPECT_TRUE(Eventually([this] { return Holds("first.log", " Error Doorbell: Nobody hears ring "); }));

    Change(GroupText(4, "second.log"));
    EXPECT_TRUE(Eventually([this] {
        return Holds("second.log", " Trace Camera: Frame ") && Holds("second.log", " Information Doorbell: Ring ");
    }));
    ExpectEndInOrder(example);

    std::set<std::string> seen;
    for (const std::string& message : Messages("first.log"))
    {
        EXPECT_THAT(message, testing::MatchesRegex("Error Doorbell: Nobody hears ring [0-9]+"));
        EXPECT_TRUE(seen.insert(message).second) << message;
    }
    for (const std::string& message : Messages("second.log"))
    {
        EXPECT_TRUE(OfTheApplication(message) ? seen.insert(message).second : true) << message;
    }
    EXPECT_THAT(NamesIn(folder.GetPath()), testing::Contains("korlo-Log_2FDoorbell"));
}

TEST_F(LogExampleTest, AGroupWithoutALevelIsWrittenForThePersonWhoLooksForIt)
{
    ChildProcess example(CommandWithServer("log-as-told", {folder.GetPath()}));
    example.AwaitOutput("ready\n");
    EXPECT_TRUE(Eventually([this] {
        return client.Get("Log/Doorbell") ==
               "[Log/Doorbell]\nlog.level=1\nlog.stdout=false\nlog.syslog=true\nusing_defs=false\n";
    }));
    ExpectEndInOrder(example);
}

TEST_F(ExamplesTest, TwoProcessesShareABudget)
{
    ChildProcess video(CommandWithServer("share-budget", {"video", "70"}));
    video.AwaitOutput("video holds 70 of 100 units\n");
    ChildProcess backup(CommandWithServer("share-budget", {"backup", "60"}));
    backup.AwaitOutput("waiting: 30 of 100 units can be had\n");
    EXPECT_THAT(client.Get("Resources/Uplink/Consumers/backup"), HasSubstr("CurrentlyUsed=0\n"));

    ExpectEndInOrder(video);

    backup.AwaitOutput("backup holds 60 of 100 units\n");
    EXPECT_THAT(client.Get("Resources/Uplink/Consumers/video"), HasSubstr("CurrentlyUsed=0\n"));
    EXPECT_THAT(client.Get("Resources/Uplink/Consumers/backup"), HasSubstr("CurrentlyUsed=60\n"));
    ExpectEndInOrder(backup);
    EXPECT_THAT(client.Get("Resources/Uplink/Consumers/backup"), HasSubstr("CurrentlyUsed=0\n"));
}

TEST_F(ExamplesTest, AProcessThatWaitsForUnitsEndsInOrder)
{
    ChildProcess greedy(CommandWithServer("share-budget", {"video", "90"}));
    greedy.AwaitOutput("waiting: 80 of 100 units can be had\n");  // its cap
    ExpectEndInOrder(greedy);
}

TEST_F(ExamplesTest, WhatAKilledProcessHeldIsTakenOverByItsSuccessor)
{
    {
        ChildProcess video(CommandWithServer("share-budget", {"video", "70"}));
        video.AwaitOutput("video holds 70 of 100 units\n");
        video.Signal(SIGKILL);
        video.Wait();
    }
    EXPECT_THAT(client.Get("Resources/Uplink/Consumers/video"), HasSubstr("CurrentlyUsed=70\n"));
    ChildProcess successor(CommandWithServer("share-budget", {"video", "80"}));
    successor.AwaitOutput("video holds 80 of 100 units\n");
    ExpectEndInOrder(successor);
    EXPECT_THAT(client.Get("Resources/Uplink/Consumers/video"), HasSubstr("CurrentlyUsed=0\n"));
}

TEST_F(ExamplesTest, AConsumerThatIsNotAllowedIsTold)
{
    Change("[Resources/Uplink/AllowedConsumers]\n1=video\n");
    ChildProcess example(CommandWithServer("share-budget", {"backup", "1"}));
    EXPECT_EQ(example.Wait(), 1);
    EXPECT_EQ(example.GetErrors(), "example-share-budget: 'backup' is not among the allowed consumers of the uplink\n");
}

TEST_F(ExamplesTest, SeveralResourcesAreReservedTogetherOrNotAtAll)
{
    ChildProcess together(CommandWithServer("reserve-together", {"video"}));
    EXPECT_EQ(together.Wait(), 0) << together.GetErrors();
    EXPECT_EQ(together.GetOutput(),
              "both reserved\nProcessor: 100 held, 400 of 400 can be had\nUplink: 20 held, 80 of 100 can be had\n");

    ChildProcess backup(CommandWithServer("share-budget", {"backup", "90"}));
    backup.AwaitOutput("backup holds 90 of 100 units\n");
    ChildProcess refused(CommandWithServer("reserve-together", {"video"}));
    EXPECT_EQ(refused.Wait(), 0) << refused.GetErrors();
    EXPECT_EQ(refused.GetOutput(), "refused, and nothing changed\nProcessor: 0 held, 400 of 400 can be had\n"
                                   "Uplink: 0 held, 10 of 100 can be had\n");
    ExpectEndInOrder(backup);
}

TEST_F(ExamplesTest, AWrongCommandLineIsExplained)
{
    const struct
    {
        Arguments operands;
        const char* message;
    } rows[] = {
        {{}, "usage: example-share-budget [--server HOST:PORT] CONSUMER UNITS\n"},
        {{"--help"}, "usage: example-share-budget [--server HOST:PORT] CONSUMER UNITS\n"},
        {{"--server"}, "--server takes HOST:PORT, for example 127.0.0.1:4711, not ''\n"},
        {{"--server", "here", "video", "1"}, "--server takes HOST:PORT, for example 127.0.0.1:4711, not 'here'\n"},
        {{"--server", ":1", "video", "1"}, "--server takes HOST:PORT, for example 127.0.0.1:4711, not ':1'\n"},
        {{"video", "many"}, "UNITS is a number such as 40, not 'many'\n"},
    };
    for (const auto& row : rows)
    {
        SCOPED_TRACE(row.message);
        Arguments command = Command("share-budget");
        command.insert(command.end(), row.operands.begin(), row.operands.end());
        ChildProcess example(command);
        EXPECT_EQ(example.Wait(), 2);
        EXPECT_EQ(example.GetErrors(), std::string("example-share-budget: ") + row.message);
    }
}

TEST_F(ExamplesTest, AServerThatIsNotThereIsNamed)
{
    Arguments command = CommandWithServer("follow-settings");
    EXPECT_EQ(server.End(), 0);
    ChildProcess example(command);
    EXPECT_EQ(example.Wait(), 1);
    EXPECT_THAT(example.GetErrors(), testing::EndsWith("Is korlo-settings-server running? Start it, or say where it is "
                                                       "by --server HOST:PORT\n"));
}

}  // namespace
}  // namespace korlo::examples
