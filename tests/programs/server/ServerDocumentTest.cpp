// docs/server.md says what is so.

#include <memory>
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

/// From a heading to the next one.
std::string Section(const std::string& heading)
{
    const std::string document = Document();
    const std::size_t begin = document.find("\n## " + heading + '\n');
    EXPECT_NE(begin, std::string::npos) << heading;
    return document.substr(begin + 1, document.find("\n## ", begin + 1) - begin - 1);
}

/// Runs the indented commands of a section in that folder. The last of them starts the server.
std::unique_ptr<ChildProcess> StartAsShown(const std::string& section, const TemporaryFolder& folder)
{
    const std::string indent = "    ";
    const std::string program = indent + "korlo-settings-server ";
    std::string script = "set -e; cd '" + folder.GetPath() + "'\n";
    std::istringstream lines(section);
    for (std::string line; std::getline(lines, line);)
    {
        if (line.starts_with(program))
        {
            script += std::string("exec ") + KORLO_EMULATOR + ' ' + KORLO_SETTINGS_SERVER + ' ' +
                      line.substr(program.size()) + '\n';
            break;
        }
        script += line.starts_with(indent) ? line + '\n' : "";
    }
    auto pServer = std::make_unique<ChildProcess>(std::vector<std::string>{"sh", "-c", script});
    pServer->AwaitOutput("\n");
    return pServer;
}

TEST(ServerDocumentTest, TheCommandsOfTheFirstRunWork)
{
    const TemporaryFolder folder;
    const auto pServer = StartAsShown(Section("A first run"), folder);
    const std::string announcement = "listening on 127.0.0.1:";
    ASSERT_THAT(pServer->GetOutput(), testing::StartsWith(announcement));
    const auto port = static_cast<unsigned short>(std::stoi(pServer->GetOutput().substr(announcement.size())));
    EXPECT_EQ(RawClient(port).Get("*"), "[DeviceSecure]\nserial=4711\n[Network]\nmode=dhcp\n");
    pServer->Signal(SIGTERM);
    EXPECT_EQ(pServer->Wait(), 0);
}

TEST(ServerDocumentTest, ADefaultThatIsNotThereIsLoggedAsShown)
{
    const TemporaryFolder folder;
    const std::string section = Section("Why is my default not there?");
    const auto pServer = StartAsShown(section, folder);
    pServer->Signal(SIGTERM);
    EXPECT_EQ(pServer->Wait(), 0);
    const std::string begin = "```text\n";
    std::istringstream shown(section.substr(section.find(begin) + begin.size()));
    std::size_t position = 0;
    int count = 0;
    for (std::string line; std::getline(shown, line) && line != "```"; ++count)
    {
        position = pServer->GetErrors().find("] " + line + '\n', position);
        ASSERT_NE(position, std::string::npos) << line << "\nis not in its place in\n" << pServer->GetErrors();
    }
    EXPECT_GT(count, 2);
}

TEST(ServerDocumentTest, AnExplanationIsAsShown)
{
    const TemporaryFolder folder;
    const std::string section = Section("Where a value is from");
    const auto pServer = StartAsShown(section, folder);
    RawClient client("unix:" + folder.PathOf("demo/control"));
    client.Send("explain [Network]mode\n");
    EXPECT_EQ(client.ReadLine(), "ok");
    const std::string begin = "```ini\n";
    const std::string shown = section.substr(section.find(begin) + begin.size());
    EXPECT_EQ(client.ReadBlock(), shown.substr(0, shown.find("```")));
    pServer->Signal(SIGTERM);
    EXPECT_EQ(pServer->Wait(), 0);
}

TEST(ServerDocumentTest, TheTableGivesTheDefaults)
{
    const ServerOptions options;
    const std::string document = Document();
    EXPECT_THAT(document, HasSubstr("| `--listen` | `" + ServerOptions::DefaultDoor().address + ':' +
                                    std::to_string(ServerOptions::DefaultDoor().port) + "` |"));
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

}  // namespace
}  // namespace korlo::daemon
