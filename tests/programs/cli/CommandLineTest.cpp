#include "cli/CommandLine.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace korlo::settings::cli
{
namespace
{

using Arguments = std::vector<std::string>;
using testing::HasSubstr;

struct Row
{
    Arguments arguments;
    std::string command;
    Arguments operands;
    bool noPersist = false;
    std::string with = "";
    unsigned long count = 0;
};

const Row Rows[] = {
    {{"get", "A"}, "get", {"A"}},
    {{"get", "A", "-x", "--help", ""}, "get", {"A", "-x", "--help", ""}},
    {{"get", "-h", "-h"}, "get", {"-h", "-h"}},
    {{"get", "--"}, "get", {"--"}},
    {{"get", "--", "--help"}, "get", {"--help"}},
    {{"get", "--", "--"}, "get", {"--"}},
    {{"get", "[Group]", "[a,b]", "{}", "%%", "@file"}, "get", {"[Group]", "[a,b]", "{}", "%%", "@file"}},
    {{"--", "get", "A"}, "get", {"A"}},
    {{"set", "[G]k", "-5"}, "set", {"[G]k", "-5"}},
    {{"set", "[G]k", ""}, "set", {"[G]k", ""}},
    {{"set", "[G]k", "--help"}, "set", {"[G]k", "--help"}},
    {{"set", "[G]k", "-h"}, "set", {"[G]k", "-h"}},
    {{"set", "[G]k", "--"}, "set", {"[G]k", "--"}},
    {{"set", "[G]k", "--no-persist"}, "set", {"[G]k", "--no-persist"}},
    {{"set", "[G]k", "--no-persist", "--no-persist"}, "set", {"[G]k", "--no-persist"}, true},
    {{"set", "[G]k", "[1]", "--no-persist"}, "set", {"[G]k", "[1]"}, true},
    {{"set", "--", "[G]k", "--no-persist"}, "set", {"[G]k", "--no-persist"}},
    {{"merge"}, "merge", {}},
    {{"merge", "-"}, "merge", {"-"}},
    {{"merge", "--no-persist"}, "merge", {}, true},
    {{"merge", "f", "--no-persist"}, "merge", {"f"}, true},
    {{"merge", "--no-persist", "f"}, "merge", {"f"}, true},
    {{"set", "--no-persist", "[G]k", "v"}, "set", {"[G]k", "v"}, true},
    {{"merge", "--", "--no-persist"}, "merge", {"--no-persist"}},
    {{"overwrite", "A", "--with", "-f"}, "overwrite", {"A"}, false, "-f"},
    {{"overwrite", "A", "B", "--with=f"}, "overwrite", {"A", "B"}, false, "f"},
    {{"overwrite", "--with", "A", "B"}, "overwrite", {"--with", "A", "B"}},
    {{"overwrite", "--", "A", "--with", "f"}, "overwrite", {"A", "--with", "f"}},
    {{"watch", "A", "--count", "3"}, "watch", {"A"}, false, "", 3},
    {{"watch", "A", "--with", "f"}, "watch", {"A", "--with", "f"}},
    {{"list"}, "list", {}},
    {{"list", "*"}, "list", {"*"}},
    {{"dump"}, "dump", {}},
    {{"subscribed"}, "subscribed", {}},
    {{"resource", "show", "--", "-h"}, "resource show", {"-h"}},
    {{"resource show", "R"}, "resource show", {"R"}},
    {{"resource", "reserve", "R", "A", "-5"}, "resource reserve", {"R", "A", "-5"}},
    {{"resource", "reserve", "--", "R", "A", "-5%"}, "resource reserve", {"R", "A", "-5%"}},
};

TEST(CommandLineTest, TakesOptionsWhereTheyStandAndEverythingElseAsItIs)
{
    for (const Row& row : Rows)
    {
        SCOPED_TRACE(testing::PrintToString(row.arguments));
        const auto parsed = ParseCommandLine(row.arguments);
        ASSERT_TRUE(std::holds_alternative<CommandRun>(parsed));
        const auto& run = std::get<CommandRun>(parsed);
        EXPECT_EQ(run.pCommand->name, row.command);
        EXPECT_EQ(run.invocation.operands, row.operands);
        EXPECT_EQ(run.invocation.noPersist, row.noPersist);
        EXPECT_EQ(run.invocation.with.value_or(""), row.with);
        EXPECT_EQ(run.invocation.count, row.count);
    }
}

TEST(CommandLineTest, TakesOptionsOfTheToolBeforeTheCommand)
{
    const auto local = std::get<CommandRun>(ParseCommandLine({"--local", "[a,b]", "--json", "list", "--json"}));
    EXPECT_EQ(local.invocation.target.localFile, "[a,b]");
    EXPECT_FALSE(local.invocation.target.server);
    EXPECT_TRUE(local.invocation.asJson);
    EXPECT_EQ(local.invocation.operands, Arguments{"--json"});

    const auto server = std::get<CommandRun>(ParseCommandLine({"--server=h:1", "list"}));
    EXPECT_EQ(server.invocation.target.server, "h:1");
    EXPECT_FALSE(server.invocation.all);
    EXPECT_TRUE(std::get<CommandRun>(ParseCommandLine({"dump", "--all"})).invocation.all);
    EXPECT_FALSE(server.invocation.asJson);
}

TEST(CommandLineTest, RefusesWhatMakesNoSense)
{
    const std::pair<Arguments, std::string> rows[] = {
        {{}, "a command is missing"},
        {{""}, "unknown command ''"},
        {{"got", "A"}, "unknown command 'got'"},
        {{"resource"}, "unknown command 'resource'"},
        {{"resource", "grab"}, "unknown command 'resource grab'"},
        {{"resource", "show"}, "resource show was given too few arguments"},
        {{"resource show"}, "resource show was given too few arguments"},
        {{"get get"}, "unknown command 'get get'"},
        {{"--bogus", "get", "A"}, "unknown option '--bogus'"},
        {{"--local"}, "--local"},
        {{"--local", "a", "--server", "h:1", "list"}, "--local"},
        {{"--local", "a", "--local", "b", "list"}, "--local"},
        {{"get"}, "get was given too few arguments"},
        {{"set", "[G]k"}, "set was given too few arguments"},
        {{"set", "[G]k", "v", "w"}, "set was given too many arguments"},
        {{"set", "[G]k", "v", "--no-persist", "--no-persist", "w"}, "set was given too many arguments"},
        {{"dump", "A"}, "dump was given too many arguments"},
        {{"subscribed", "--all"}, "subscribed was given too many arguments"},
        {{"merge", "--no-persist", "f", "g"}, "merge was given too many arguments"},
        {{"test-and-merge", "f"}, "test-and-merge was given too few arguments"},
        {{"overwrite", "A", "--with"}, "--with needs a value"},
        {{"overwrite", "--with", "f"}, "overwrite was given too few arguments"},
        {{"watch", "A", "--count", "0"}, "--count"},
        {{"watch", "A", "--count", "-1"}, "--count"},
        {{"watch", "A", "--count", "x"}, "--count"},
        {{"watch", "A", "--count", "1", "--count", "2"}, "--count"},
    };
    for (const auto& [arguments, message] : rows)
    {
        SCOPED_TRACE(testing::PrintToString(arguments));
        try
        {
            ParseCommandLine(arguments);
            ADD_FAILURE() << "accepted";
        }
        catch (const Failure& failure)
        {
            EXPECT_EQ(failure.GetStatus(), StatusWrongCommandLine);
            EXPECT_THAT(failure.what(), HasSubstr(message));
            EXPECT_FALSE(failure.GetHint().empty());
        }
    }
}

TEST(CommandLineTest, EveryCommandHasHelpWithExamples)
{
    const std::string help = std::get<Information>(ParseCommandLine({"--help"})).text;
    for (const Command& command : AllCommands())
    {
        SCOPED_TRACE(command.name);
        EXPECT_THAT(help, HasSubstr(std::string("  ") + command.name + ' '));
        const std::string own = std::get<Information>(ParseCommandLine({command.name, "--help"})).text;
        EXPECT_THAT(own, HasSubstr(std::string(command.name) + ' ' + command.synopsis));
        EXPECT_THAT(own, HasSubstr(std::string("Examples:\n  korlo-settings ")));
        EXPECT_EQ(own, std::get<Information>(ParseCommandLine({command.name, "-h"})).text);
    }
}

}  // namespace
}  // namespace korlo::settings::cli
