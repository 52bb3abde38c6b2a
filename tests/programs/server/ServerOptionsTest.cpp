#include "ServerOptions.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/HelpForm.h"

namespace korlo::daemon
{
namespace
{

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

ServerOptions Parse(std::vector<const char*> arguments)
{
    arguments.insert(arguments.begin(), "korlo-settings-server");
    return ParseOptions(static_cast<int>(arguments.size()), arguments.data());
}

EarlyExit Refusal(const std::vector<const char*>& arguments)
{
    try
    {
        Parse(arguments);
        return EarlyExit(-1, "was accepted");
    }
    catch (const EarlyExit& exit)
    {
        return exit;
    }
}

TEST(ServerOptionsTest, HaveDefaults)
{
    const ServerOptions options = Parse({});
    EXPECT_THAT(options.listen, IsEmpty());
    EXPECT_EQ(ServerOptions::DefaultDoor().address, "127.0.0.1");
    EXPECT_EQ(ServerOptions::DefaultDoor().port, 4711);
    EXPECT_EQ(options.socketMode, 0660u);
    EXPECT_EQ(options.socketGroup, std::nullopt);
    EXPECT_EQ(options.controlPath, "");
    EXPECT_THAT(options.access, IsEmpty());
    EXPECT_FALSE(options.checksOnly);
    EXPECT_EQ(options.userPath, "/var/lib/korlo-settings/user.ini");
    EXPECT_FALSE(options.userPathIsGiven);
    EXPECT_EQ(options.saveDelayMs, 0u);
    EXPECT_EQ(options.limits.maxClients, 1000u);
    EXPECT_EQ(options.limits.maxBacklog, 1024u * 1024);
    EXPECT_EQ(options.limits.maxMessage, 16u * 1024 * 1024);
    EXPECT_EQ(options.logLevel, 2);
}

TEST(ServerOptionsTest, TakeWhatIsGiven)
{
    const ServerOptions options = Parse({"--listen", "0.0.0.0:0", "--defaults", "a", "--defaults", "b", "--user", "u",
                                         "--restricted=r", "--save-delay", "100", "--max-clients", "2", "--max-backlog",
                                         "3", "--max-message", "4", "--log-level", "0"});
    ASSERT_EQ(options.listen.size(), 1u);
    EXPECT_EQ(options.listen[0].address, "0.0.0.0");
    EXPECT_EQ(options.listen[0].port, 0);
    EXPECT_THAT(options.defaults, ElementsAre("a", "b"));
    EXPECT_EQ(options.userPath, "u");
    EXPECT_TRUE(options.userPathIsGiven);
    EXPECT_THAT(options.restricted, ElementsAre("r"));
    EXPECT_EQ(options.saveDelayMs, 100u);
    EXPECT_EQ(options.limits.maxClients, 2u);
    EXPECT_EQ(options.limits.maxBacklog, 3u);
    EXPECT_EQ(options.limits.maxMessage, 4u);
    EXPECT_EQ(options.logLevel, 0);
}

TEST(ServerOptionsTest, SayHowChangesComeToTheDisk)
{
    EXPECT_EQ(Parse({}).saveBy, SaveBy::Replacing);
    EXPECT_EQ(Parse({"--save-by", "append"}).saveBy, SaveBy::Appending);
    EXPECT_EQ(Parse({"--save-by", "append", "--save-by=replace"}).saveBy, SaveBy::Replacing);
}

TEST(ServerOptionsTest, SayHowManyEntriesTheJournalKeeps)
{
    EXPECT_EQ(Parse({}).journal, 256u);
    EXPECT_EQ(Parse({"--journal", "0"}).journal, 0u);
    EXPECT_EQ(Parse({"--journal", "4096"}).journal, 4096u);
}

TEST(ServerOptionsTest, OfSeveralTheLastCounts)
{
    EXPECT_EQ(Parse({"--control", "a", "--control", "b"}).controlPath, "b");
    EXPECT_EQ(Parse({"--save-delay", "1", "--save-delay", "2"}).saveDelayMs, 2u);
}

TEST(ServerOptionsTest, TakeAnIPv6AddressOutOfItsBrackets)
{
    EXPECT_EQ(Parse({"--listen", "[::1]:80"}).listen.at(0).address, "::1");
}

TEST(ServerOptionsTest, ListenMayBeRepeated)
{
    const ServerOptions options = Parse({"--listen", "a:1", "--listen", "unix:/run/x:2", "--listen", "[::1]:0"});
    ASSERT_EQ(options.listen.size(), 3u);
    EXPECT_EQ(options.listen[0].address, "a");
    EXPECT_EQ(options.listen[1].address, "unix:/run/x:2");
    EXPECT_EQ(options.listen[1].port, 0);
    EXPECT_EQ(options.listen[2].address, "::1");
}

TEST(ServerOptionsTest, TakeWhatSaysWhoMayConnectAndDoWhat)
{
    const ServerOptions options = Parse({"--socket-mode", "0600", "--socket-group", "web", "--control", "/c",
                                         "--access", "a", "--access", "b", "--check"});
    EXPECT_EQ(options.socketMode, 0600u);
    EXPECT_EQ(options.socketGroup, "web");
    EXPECT_EQ(options.controlPath, "/c");
    EXPECT_THAT(options.access, ElementsAre("a", "b"));
    EXPECT_TRUE(options.checksOnly);
}

TEST(ServerOptionsTest, RefuseWhatMakesNoSenseInOneLineThatNamesIt)
{
    struct Row
    {
        std::vector<const char*> arguments;
        const char* named;
    };
    const std::vector<Row> rows = {
        {{"--bogus"}, "--bogus"},
        {{"stray"}, "stray"},
        {{"--listen"}, "--listen"},
        {{"--listen", "4711"}, "'4711'"},
        {{"--listen", ":4711"}, "':4711'"},
        {{"--listen", "::1:80"}, "'::1:80'"},
        {{"--listen", "a:"}, "''"},
        {{"--listen", "a:65536"}, "'65536'"},
        {{"--listen", "a:-1"}, "'-1'"},
        {{"--listen", "unix:"}, "'unix:'"},
        {{"--socket-mode", "0888"}, "--socket-mode: '0888'"},
        {{"--socket-mode", "rw"}, "--socket-mode: 'rw'"},
        {{"--socket-mode", "1777"}, "--socket-mode: '1777'"},
        {{"--control"}, "--control"},
        {{"--access"}, "--access"},
        {{"--save-delay", "x"}, "--save-delay: 'x'"},
        {{"--save-by", "log"}, "--save-by: 'log' is neither replace nor append"},
        {{"--save-delay", "1.5"}, "--save-delay: '1.5'"},
        {{"--save-delay", "99999999999999999999"}, "--save-delay"},
        {{"--journal", "4097"}, "--journal: '4097'"},
        {{"--journal", "-1"}, "--journal: '-1'"},
        {{"--max-clients", "0"}, "--max-clients: '0'"},
        {{"--max-backlog", "0"}, "--max-backlog: '0'"},
        {{"--max-message", "0x10"}, "--max-message: '0x10'"},
        {{"--log-level", "5"}, "--log-level: '5'"},
    };
    for (const Row& row : rows)
    {
        SCOPED_TRACE(row.named);
        const EarlyExit exit = Refusal(row.arguments);
        EXPECT_EQ(exit.GetStatus(), 2);
        EXPECT_THAT(exit.what(), HasSubstr(row.named));
        EXPECT_THAT(exit.what(), testing::Not(HasSubstr("\n")));
    }
}

TEST(ServerOptionsTest, AnswerQuestions)
{
    EXPECT_EQ(Refusal({"--help"}).GetStatus(), 0);
    EXPECT_THAT(Refusal({"--help"}).what(), HasSubstr("--max-backlog"));
    EXPECT_EQ(Refusal({"--version"}).GetStatus(), 0);
    EXPECT_THAT(Refusal({"--version"}).what(), testing::StartsWith("korlo-settings-server "));
}

TEST(ServerOptionsTest, HelpHasTheFormOfAllPrograms)
{
    const std::string help = Refusal({"--help"}).what();
    ExpectHelpForm(help, "korlo-settings-server");
    EXPECT_THAT(help, HasSubstr("(default: 127.0.0.1:4711)"));
    EXPECT_EQ(help, Refusal({"-h"}).what());
}

}  // namespace
}  // namespace korlo::daemon
