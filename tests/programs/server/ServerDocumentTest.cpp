// docs/server.md says what is so.

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ServerOptions.h"
#include "support/Files.h"
#include "support/ServerProcess.h"
#include "support/TemporaryFolder.h"

namespace korlo::daemon
{
namespace
{

using testing::HasSubstr;

std::string Document()
{
    return ContentOf(std::string(KORLO_DOCS) + "/server.md").value();
}

/// The indented commands below a heading.
std::vector<std::string> CommandsBelow(const std::string& heading)
{
    const std::string document = Document();
    std::istringstream lines(document.substr(document.find("## " + heading)));
    std::vector<std::string> commands;
    std::string line;
    while (std::getline(lines, line) && !line.starts_with("Once "))
    {
        if (line.starts_with("    "))
        {
            commands.push_back(line.substr(4));
        }
    }
    return commands;
}

TEST(ServerDocumentTest, TheCommandsOfTheFirstRunWork)
{
    const TemporaryFolder folder;
    std::vector<std::string> commands = CommandsBelow("A first run");
    ASSERT_FALSE(commands.empty());
    const std::string program = "korlo-settings-server";
    ASSERT_TRUE(commands.back().starts_with(program));
    const std::string server = std::string(KORLO_EMULATOR) + ' ' + KORLO_SETTINGS_SERVER;
    commands.back().replace(0, program.size(), "exec " + server);

    std::string script = "set -e; cd '" + folder.GetPath() + "'\n";
    for (const std::string& command : commands)
    {
        script += command + '\n';
    }
    ChildProcess child({"sh", "-c", script});
    child.AwaitOutput("\n");
    ASSERT_THAT(child.GetOutput(), testing::StartsWith("listening on 127.0.0.1:"));
    const auto port = static_cast<unsigned short>(std::stoi(child.GetOutput().substr(child.GetOutput().find(':') + 1)));
    EXPECT_EQ(RawClient(port).Get("*"), "[DeviceSecure]\nserial=4711\n[Network]\nmode=dhcp\n");
    child.Signal(SIGTERM);
    EXPECT_EQ(child.Wait(), 0);
}

TEST(ServerDocumentTest, TheClientInPhpWorks)
{
    if (ChildProcess({"sh", "-c", "command -v php"}).Wait() != 0)
    {
        GTEST_SKIP() << "php is not installed";  // scripts/test installs it; nothing else here needs it
    }
    const TemporaryFolder folder;
    std::ofstream(folder.PathOf("defaults.ini")) << "[Audio]\nvolume=3\n[Guests]\nmost=9\n"
                                                    "[Network/Ethernet]\ndhcp=1\n[Visits]\ncount=6\n";
    ServerProcess server({"--defaults", folder.PathOf("defaults.ini"), "--user", folder.PathOf("user.ini")});

    const std::string document = ContentOf(std::string(KORLO_DOCS) + "/protocol.md").value();
    const std::string begin = "```php\n";
    std::string script = document.substr(document.find(begin) + begin.size());
    script.resize(script.find("```"));
    const std::string address = "127.0.0.1:4711";
    ASSERT_NE(script.find(address), std::string::npos);
    script.replace(script.find(address), address.size(), "127.0.0.1:" + std::to_string(server.GetPort()));
    std::ofstream(folder.PathOf("client.php")) << script;

    ChildProcess client(
        {"php", "-d", "display_errors=stderr", "-d", "error_reporting=-1", folder.PathOf("client.php")});
    EXPECT_EQ(client.Wait(), 0);
    EXPECT_EQ(client.GetOutput(), "7\nAudio Network/Wifi Visits\n");
    EXPECT_EQ(client.GetErrors(), "");
    EXPECT_EQ(RawClient(server.GetPort()).Get("*"),
              "[Audio]\nvolume=3\n[Network/Wifi]\nssid=Workshop\n[Visits]\ncount=7\n");
}

TEST(ServerDocumentTest, TheTableGivesTheDefaults)
{
    const ServerOptions options;
    const std::string document = Document();
    EXPECT_THAT(document, HasSubstr("| `--listen` | `" + options.address + ':' + std::to_string(options.port) + "` |"));
    EXPECT_THAT(document, HasSubstr("| `--user` | `" + options.userPath + "` |"));
    EXPECT_THAT(document, HasSubstr("| `--save-delay` | " + std::to_string(options.saveDelayMs) + " |"));
    EXPECT_THAT(document, HasSubstr("| `--max-clients` | " + std::to_string(options.limits.maxClients) + " |"));
    EXPECT_THAT(document, HasSubstr("| `--max-backlog` | " + std::to_string(options.limits.maxBacklog) + " |"));
    EXPECT_THAT(document, HasSubstr("| `--max-message` | " + std::to_string(options.limits.maxMessage) + " |"));
    EXPECT_THAT(document, HasSubstr("| `--log-level` | " + std::to_string(options.logLevel) + " |"));
}

TEST(ServerDocumentTest, EveryOptionIsDescribed)
{
    const char* const arguments[] = {"korlo-settings-server", "--help"};
    std::string help;
    try
    {
        ParseOptions(2, arguments);
    }
    catch (const EarlyExit& exit)
    {
        help = exit.what();
    }
    std::istringstream words(help);
    for (std::string word; words >> word;)
    {
        if (word.starts_with("--"))
        {
            EXPECT_THAT(Document(), HasSubstr('`' + word.substr(0, word.find_first_of(",=")) + '`'));
        }
    }
}

TEST(ServerDocumentTest, TheUnitStartsTheServerWithOptionsThatItTakes)
{
    const std::string unit = ContentOf(std::string(KORLO_DOCS) + "/../packaging/korlo-settings-server.service").value();
    const std::string start = "ExecStart=/usr/sbin/";
    std::istringstream line(unit.substr(unit.find(start) + start.size()));
    std::string command;
    std::getline(line, command);
    std::istringstream text(command);
    std::vector<std::string> words;
    for (std::string word; text >> word;)
    {
        words.push_back(word);
    }
    std::vector<const char*> arguments;
    for (const std::string& word : words)
    {
        arguments.push_back(word.c_str());
    }
    const ServerOptions options = ParseOptions(static_cast<int>(arguments.size()), arguments.data());
    EXPECT_EQ(options.userPath, ServerOptions().userPath);
    EXPECT_THAT(unit, HasSubstr("\nType=notify\n"));
    EXPECT_THAT(unit, HasSubstr("\nStateDirectory=korlo-settings\n"));
}

}  // namespace
}  // namespace korlo::daemon
