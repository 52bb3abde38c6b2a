// korlo-settings at the control door of a real server: status, clients and save.

#include <filesystem>
#include <memory>
#include <string>
#include <thread>

#include <sys/prctl.h>

#include "ToolFixture.h"
#include "support/Files.h"
#include "support/ServerProcess.h"

namespace korlo::settings::cli
{
namespace
{

using testing::AllOf;
using testing::ContainsRegex;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

class SettingsToolStatusTest : public ToolTest
{
protected:
    SettingsToolStatusTest() { std::filesystem::create_directory(PathOf("state")); }

    ServerProcess::Arguments Options() const
    {
        return {"--user",     PathOf("state/user.ini"),
                "--control",  _door,
                "--listen",   _socket,
                "--defaults", Write("defaults.ini", "[Audio]\nvolume=40\n")};
    }

    ToolResult AtDoor(Arguments arguments) const
    {
        arguments.insert(arguments.begin(), {"--control", _door});
        return Run(arguments);
    }

    /// A change that is not on the disk.
    void FailASave(const ServerProcess& server) const
    {
        std::filesystem::rename(PathOf("state"), PathOf("gone"));
        EXPECT_FALSE(RawClient(server.GetPort()).TestAndMerge("", "[Audio]\nvolume=41\n"));
    }

    const std::string _door = PathOf("control");
    const std::string _socket = "unix:" + PathOf("socket");
};

TEST_F(SettingsToolStatusTest, PrintsAPageForPeople)
{
    ServerProcess server(Options());
    const ToolResult result = AtDoor({"status"});
    EXPECT_EQ(result.status, 0) << result.errors;
    EXPECT_THAT(result.output,
                AllOf(StartsWith("server   version " KORLO_VERSION ", process "),
                      HasSubstr("\nstore    1 groups, 1 keys, 13 B; 0 changes\n"),
                      HasSubstr("\nsaves    0 done, 0 not needed, 0 failed; nothing waits\n"),
                      HasSubstr("\nclients  0 now, 0 at most, 0 refused, 0 dropped\n"),
                      HasSubstr("\ndoor     " + _socket + " (unix)\n"),
                      HasSubstr("\nfile     " + PathOf("defaults.ini") + " (default): 1 groups, 1 keys\n"),
                      EndsWith("\n")));
}

TEST_F(SettingsToolStatusTest, TellsHowFullTheLogIs)
{
    ServerProcess::Arguments options = Options();
    options.insert(options.end(), {"--save-by", "append"});
    ServerProcess server(options);
    EXPECT_TRUE(RawClient(server.GetPort()).TestAndMerge("", "[Audio]\nvolume=41\n"));
    EXPECT_THAT(AtDoor({"status"}).output,
                HasSubstr("\n         37 B in the log, which is folded beyond 64.0 KiB; folds so far: 1\n"));
}

TEST_F(SettingsToolStatusTest, PrintsTheAnswerAsAnObjectWithFiguresAsNumbers)
{
    ServerProcess server(Options());
    const ToolResult result = AtDoor({"status", "--json"});
    EXPECT_EQ(result.status, 0) << result.errors;
    EXPECT_THAT(result.output,
                AllOf(StartsWith("{\"Clients\":{\"dropped\":0,\"most\":0,\"now\":0,\"refused\":0},"),
                      HasSubstr("\"pid\":" + std::to_string(server.GetChild().GetProcess()) + ","),
                      HasSubstr("\"version\":\"" KORLO_VERSION "\""), HasSubstr("\"kind\":\"default\""),
                      HasSubstr("\"Store\":{\"bytes\":13,\"changes\":0,\"groups\":1,\"keys\":1}"), EndsWith("}}\n")));
}

TEST_F(SettingsToolStatusTest, EndsWithOneWhileAChangeIsUnsaved)
{
    ServerProcess server(Options());
    FailASave(server);
    const ToolResult text = AtDoor({"status"});
    EXPECT_EQ(text.status, 1);
    EXPECT_THAT(text.output, AllOf(HasSubstr("0 done, 0 not needed, 1 failed; a change is NOT SAVED\n"),
                                   ContainsRegex("\n         last failure at 20[^\n]*Z: Failed to [^\n]*user.ini")));
    const ToolResult json = AtDoor({"status", "--json"});
    EXPECT_EQ(json.status, 1);
    EXPECT_THAT(json.output, AllOf(HasSubstr("\"unsaved\":1"), HasSubstr("\"lastFailure\":\"Failed to ")));

    const ToolResult failed = AtDoor({"save"});
    EXPECT_EQ(failed.status, 1);
    EXPECT_EQ(failed.output, "");
    EXPECT_THAT(failed.errors, AllOf(StartsWith("korlo-settings: the settings are not saved: failed to "),
                                     HasSubstr("user.ini"), HasSubstr("No such file or directory")));
    std::filesystem::rename(PathOf("gone"), PathOf("state"));
    ExpectResult(AtDoor({"save"}), 0, "");
    EXPECT_EQ(AtDoor({"status"}).status, 0);
    EXPECT_EQ(Read(PathOf("state/user.ini")), "[Audio]\nvolume=41\n");
}

TEST_F(SettingsToolStatusTest, WithoutAServerEachEndsWithThree)
{
    for (const char* command : {"status", "clients", "save"})
    {
        SCOPED_TRACE(command);
        ExpectResult(AtDoor({command}), 3, "", HasSubstr("failed to reach the server's control door"));
    }
    ExpectResult(AtDoor({"status", "--wait", "1"}), 3, "", HasSubstr("failed to reach the server's control door"));
}

TEST_F(SettingsToolStatusTest, WaitsUntilTheServerIsThere)
{
    ChildProcess tool(Command({"--control", _door, "status", "--wait=60"}));
    tool.CloseInput();
    ServerProcess server(Options());
    EXPECT_EQ(tool.Wait(), 0) << tool.GetErrors();
    EXPECT_THAT(tool.GetOutput(), StartsWith("server   version "));
    EXPECT_EQ(tool.GetErrors(), "");
}

TEST_F(SettingsToolStatusTest, RefusesAWaitThatIsNoWholeNumberOfSeconds)
{
    for (const char* seconds : {"", "-1", "x", "1.5", "99999999999"})
    {
        ExpectResult(AtDoor({"status", "--wait", seconds}), 2, "",
                     HasSubstr("--wait takes a whole number of seconds, not '" + std::string(seconds) + "'"));
    }
}

TEST_F(SettingsToolStatusTest, PrintsATableOfTheClients)
{
    ServerProcess server(Options());
    EXPECT_THAT(AtDoor({"clients"}).output, ContainsRegex("^NUMBER  WHO  DOOR  SINCE  REQUESTS  IN  OUT  WAITING  "
                                                          "REFUSED  SUBSCRIBED\n$"));
    RawClient client(server.GetPort());
    client.Send("subscribe\nAudio\nNet*\n.\n");
    EXPECT_EQ(client.Get("None"), "");
    const ToolResult result = AtDoor({"clients"});
    EXPECT_EQ(result.status, 0) << result.errors;
    EXPECT_THAT(result.output, ContainsRegex("\n1 +127.0.0.1:[0-9]+ +127.0.0.1:" + std::to_string(server.GetPort()) +
                                             " +20[-0-9]+T[0-9:.]+Z +[0-9]+ +[0-9]+ B +7 B +0 B +0 +Audio, Net\\*\n$"));
}

TEST_F(SettingsToolStatusTest, PrintsTheClientsAsAnArrayInTheirOrder)
{
    ServerProcess server(Options());
    ExpectResult(AtDoor({"clients", "--json"}), 0, "[]\n");
    RawClient first(_socket);
    EXPECT_EQ(first.Get("None"), "");
    RawClient second(server.GetPort());
    second.Send("subscribe\nAudio\n.\n");
    EXPECT_EQ(second.Get("None"), "");
    const ToolResult result = AtDoor({"clients", "--json"});
    EXPECT_EQ(result.status, 0) << result.errors;
    EXPECT_THAT(result.output,
                AllOf(ContainsRegex("^\\[\\{\"bytesIn\":[0-9]+,\"bytesOut\":7,"),
                      ContainsRegex("\"number\":1,\"pid\":[0-9]+,.*\"number\":2,"), ContainsRegex("\"uid\":[0-9]+,"),
                      HasSubstr("\"subscribed\":[\"Audio\"],\"subscriptions\":1")));
}

TEST_F(SettingsToolStatusTest, ANameThatAClientChoosesDrivesNoTerminal)
{
    ServerProcess server(Options());
    std::thread([&] {
        ::prctl(PR_SET_NAME, "\033[31m\n123");
        RawClient client(_socket);
        client.Send("subscribe\n\033[2J\n.\n");
        EXPECT_EQ(client.Get("None"), "");
        const ToolResult result = AtDoor({"clients"});
        EXPECT_EQ(result.status, 0) << result.errors;
        EXPECT_THAT(result.output, AllOf(Not(HasSubstr("\033")), HasSubstr("\\x1B[2J")));
    }).join();
}

TEST_F(SettingsToolStatusTest, AValueIsInNoByteOfWhatIsPrinted)
{
    const std::string secret = "hunter2-4711";
    ServerProcess server(Options());
    RawClient client(server.GetPort());
    EXPECT_TRUE(client.TestAndMerge("", "[Audio]\nvolume=" + secret + '\n'));
    EXPECT_FALSE(client.TestAndMerge("[Audio]\nvolume=" + secret + "x\n", ""));
    FailASave(server);
    for (const Arguments& arguments : {Arguments{"status"}, Arguments{"status", "--json"}, Arguments{"clients"},
                                       Arguments{"clients", "--json"}, Arguments{"save"}})
    {
        const ToolResult result = AtDoor(arguments);
        EXPECT_THAT(result.output + result.errors, Not(HasSubstr("hunter2"))) << arguments.front();
    }
}

}  // namespace
}  // namespace korlo::settings::cli
