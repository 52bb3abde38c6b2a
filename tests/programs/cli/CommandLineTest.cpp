#include "cli/CommandLine.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/HelpForm.h"

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
    {{"get", "A", "-x", "-h", ""}, "get", {"A", "-x", "-h", ""}},
    {{"get", "-h", "-h"}, "get", {"-h", "-h"}},
    {{"get", "--", "-h"}, "get", {"-h"}},
    {{"get", "--", "--help"}, "get", {"--help"}},
    {{"get", "--", "--"}, "get", {"--"}},
    {{"get", "A", "--", "--json", "--"}, "get", {"A", "--json", "--"}},
    {{"get", "[Group]", "[a,b]", "{}", "%%", "@file"}, "get", {"[Group]", "[a,b]", "{}", "%%", "@file"}},
    {{"--", "get", "A"}, "get", {"A"}},
    {{"--", "get", "--", "--json"}, "get", {"--", "--json"}},
    {{"set", "[G]k", "-5"}, "set", {"[G]k", "-5"}},
    {{"set", "[G]k", ""}, "set", {"[G]k", ""}},
    {{"set", "[G]k", "v", "--no-persist"}, "set", {"[G]k", "v"}, true},
    {{"set", "--no-persist", "[G]k", "v"}, "set", {"[G]k", "v"}, true},
    {{"set", "[G]k", "--no-persist", "v"}, "set", {"[G]k", "v"}, true},
    {{"set", "[G]k", "--no-persist", "--", "--v"}, "set", {"[G]k", "--v"}, true},
    {{"set", "--", "[G]k", "--no-persist"}, "set", {"[G]k", "--no-persist"}},
    {{"merge"}, "merge", {}},
    {{"merge", "-"}, "merge", {"-"}},
    {{"merge", "--no-persist"}, "merge", {}, true},
    {{"merge", "f", "--no-persist"}, "merge", {"f"}, true},
    {{"merge", "--no-persist", "f"}, "merge", {"f"}, true},
    {{"merge", "--no-persist", "--no-persist"}, "merge", {}, true},
    {{"merge", "--", "--no-persist"}, "merge", {"--no-persist"}},
    {{"overwrite", "A", "--with", "-f"}, "overwrite", {"A"}, false, "-f"},
    {{"overwrite", "A", "--with", "--f"}, "overwrite", {"A"}, false, "--f"},
    {{"overwrite", "A", "B", "--with=f"}, "overwrite", {"A", "B"}, false, "f"},
    {{"overwrite", "--with", "f", "A", "B"}, "overwrite", {"A", "B"}, false, "f"},
    {{"overwrite", "--", "A", "--with", "f"}, "overwrite", {"A", "--with", "f"}},
    {{"watch", "A", "--count", "3"}, "watch", {"A"}, false, "", 3},
    {{"watch", "--count=3", "A"}, "watch", {"A"}, false, "", 3},
    {{"list"}, "list", {}},
    {{"list", "*"}, "list", {"*"}},
    {{"dump"}, "dump", {}},
    {{"subscribed"}, "subscribed", {}},
    {{"resource", "show", "--", "-h"}, "resource show", {"-h"}},
    {{"resource", "--json", "show", "R"}, "resource show", {"R"}},
    {{"resource show", "R"}, "resource show", {"R"}},
    {{"resource", "reserve", "R", "A", "-5"}, "resource reserve", {"R", "A", "-5"}},
    {{"resource", "reserve", "--", "R", "A", "-5%"}, "resource reserve", {"R", "A", "-5%"}},
    {{"access", "check", "u", "read", "-x"}, "access check", {"u", "read", "-x"}},
    {{"access", "--json", "check", "u", "change", "--", "--g"}, "access check", {"u", "change", "--g"}},
    {{"access check", "33", "read", "*"}, "access check", {"33", "read", "*"}},
    {{"access", "reload"}, "access reload", {}},
};

TEST(CommandLineTest, TakesOptionsWhereTheyStandAndTheRestAsItIs)
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

TEST(CommandLineTest, TakesOptionsOfTheToolBeforeAndAfterTheOperands)
{
    for (const Arguments& arguments : {Arguments{"--local", "[a,b]", "--json", "list", "A"},
                                       {"list", "--json", "--local=[a,b]", "A"},
                                       {"list", "A", "--local", "[a,b]", "--json", "--json"}})
    {
        SCOPED_TRACE(testing::PrintToString(arguments));
        const auto local = std::get<CommandRun>(ParseCommandLine(arguments));
        EXPECT_EQ(local.invocation.target.localFile, "[a,b]");
        EXPECT_FALSE(local.invocation.target.server);
        EXPECT_TRUE(local.invocation.asJson);
        EXPECT_EQ(local.invocation.operands, Arguments{"A"});
    }
    const auto server = std::get<CommandRun>(ParseCommandLine({"--server=h:1", "list"}));
    EXPECT_EQ(server.invocation.target.server, "h:1");
    EXPECT_FALSE(server.invocation.all);
    EXPECT_FALSE(server.invocation.asJson);
    EXPECT_TRUE(std::get<CommandRun>(ParseCommandLine({"dump", "--all"})).invocation.all);
}

std::string HelpFor(const Arguments& arguments)
{
    const auto parsed = ParseCommandLine(arguments);
    return std::holds_alternative<Information>(parsed) ? std::get<Information>(parsed).text : "no help";
}

TEST(CommandLineTest, TheControlDoorIsTheUsualOneUnlessAnotherIsNamed)
{
    for (const Arguments& arguments : {Arguments{"--control", "/c", "access", "reload"},
                                       {"access", "--control=/c", "reload"},
                                       {"access", "reload", "--control", "/c"}})
    {
        SCOPED_TRACE(testing::PrintToString(arguments));
        EXPECT_EQ(std::get<CommandRun>(ParseCommandLine(arguments)).invocation.control, "/c");
    }
    const auto usual = std::get<CommandRun>(ParseCommandLine({"access", "reload"}));
    EXPECT_EQ(usual.invocation.control, "/run/korlo-settings/control");
}

TEST(CommandLineTest, HelpTellsOfAllAddressesAndOfTheControlDoor)
{
    for (const Arguments& arguments : {Arguments{"--help"}, {"access", "check", "--help"}})
    {
        const std::string help = HelpFor(arguments);
        EXPECT_THAT(help, HasSubstr("  --server ADDRESS  "));
        EXPECT_THAT(help, HasSubstr("HOST:PORT, [IPV6]:PORT or unix:PATH"));
        EXPECT_THAT(help, HasSubstr("  --control PATH "));
        EXPECT_THAT(help, HasSubstr(control::DefaultPath));
    }
    EXPECT_THAT(HelpFor({"--help"}), HasSubstr("[--server ADDRESS | --local FILE] [--control PATH] [--json]"));
}

TEST(CommandLineTest, TheLastArgumentOfSetIsItsValueWhateverItIs)
{
    for (const std::string value : {"--help", "-h", "--", "--json", "--version", "--no-persist", "--bogus", "--server",
                                    "--server=h:1", "--local"})
    {
        for (const bool noPersist : {false, true})
        {
            Arguments arguments = {"set", "[G]k", value};
            arguments.insert(arguments.end(), noPersist ? 1 : 0, "--no-persist");
            if (noPersist && value == "--")
            {
                continue;  // after which there are no options
            }
            SCOPED_TRACE(testing::PrintToString(arguments));
            const auto run = std::get<CommandRun>(ParseCommandLine(arguments));
            EXPECT_EQ(run.invocation.operands, (Arguments{"[G]k", value}));
            EXPECT_EQ(run.invocation.noPersist, noPersist);
            EXPECT_FALSE(run.invocation.asJson);
            EXPECT_FALSE(run.invocation.target.server);
        }
    }
}

TEST(CommandLineTest, RefusesWhatMakesNoSense)
{
    const std::pair<Arguments, std::string> rows[] = {
        {{}, "a command is missing"},
        {{""}, "unknown command ''"},
        {{"got", "A"}, "unknown command 'got'"},
        {{"resource"}, "unknown command 'resource': it is 'resource show' or 'resource reserve'"},
        {{"resource", "--json"}, "'resource show' or 'resource reserve'"},
        {{"resource", "grab"}, "unknown command 'resource grab': it is 'resource show' or 'resource reserve'"},
        {{"resource", "show"}, "resource show was given too few arguments"},
        {{"resource show"}, "resource show was given too few arguments"},
        {{"get get"}, "unknown command 'get get'"},
        {{"-x", "get", "A"}, "unknown option '-x'"},
        {{"--bogus", "get", "A"}, "unknown option '--bogus'"},
        {{"get", "--no-such-option", "A"}, "unknown option '--no-such-option'"},
        {{"get", "A", "--no-such-option=1"}, "unknown option '--no-such-option'"},
        {{"--count", "1", "watch", "A"}, "unknown option '--count'"},
        {{"watch", "A", "--with", "f"}, "unknown option '--with'"},
        {{"subscribed", "--all"}, "unknown option '--all'"},
        {{"resource", "reserve", "R", "A", "--5"}, "unknown option '--5'"},
        {{"set", "--bogus", "[G]k", "v"}, "unknown option '--bogus'"},
        {{"set", "[G]k", "--bogus", "v"}, "unknown option '--bogus'"},
        {{"set", "[G]k", "v", "--bogus"}, "unknown option '--bogus'"},
        {{"--local"}, "--local needs a value"},
        {{"get", "A", "--local"}, "--local needs a value"},
        {{"get", "A", "--json=yes"}, "--json takes no value"},
        {{"--local", "a", "--server", "h:1", "list"}, "--local excludes --server"},
        {{"--server", "h:1", "list", "--local", "a"}, "--local excludes --server"},
        {{"--local", "a", "--local", "b", "list"}, "--local was given twice"},
        {{"get"}, "get was given too few arguments"},
        {{"get", "--"}, "get was given too few arguments"},
        {{"get", "--json"}, "get was given too few arguments"},
        {{"set", "[G]k"}, "set was given too few arguments"},
        {{"set", "--no-persist", "[G]k"}, "set was given too few arguments"},
        {{"set", "[G]k", "v", "w"}, "set was given too many arguments"},
        {{"set", "[G]k", "v", "--no-persist", "--no-persist", "w"}, "set was given too many arguments"},
        {{"dump", "A"}, "dump was given too many arguments"},
        {{"merge", "--no-persist", "f", "g"}, "merge was given too many arguments"},
        {{"test-and-merge", "f"}, "test-and-merge was given too few arguments"},
        {{"overwrite", "A", "--with"}, "--with needs a value"},
        {{"overwrite", "--with", "f"}, "overwrite was given too few arguments"},
        {{"access"}, "unknown command 'access': it is 'access check' or 'access reload'"},
        {{"access", "grant"}, "unknown command 'access grant': it is 'access check' or 'access reload'"},
        {{"access", "check", "u", "read"}, "access check was given too few arguments"},
        {{"access", "check", "u", "read", "A", "B"}, "access check was given too many arguments"},
        {{"access", "reload", "f"}, "access reload was given too many arguments"},
        {{"--control", "", "access", "reload"}, "--control takes the path of a socket"},
        {{"access", "reload", "--control"}, "--control needs a value"},
        {{"access", "reload", "--control", "a", "--control", "b"}, "--control was given twice"},
        {{"watch", "A", "--count", "0"}, "--count"},
        {{"watch", "A", "--count", "-1"}, "--count"},
        {{"watch", "A", "--count", "x"}, "--count"},
        {{"watch", "A", "--count", ""}, "--count"},
        {{"watch", "A", "--count", "1", "--count", "2"}, "--count was given twice"},
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

TEST(CommandLineTest, AnUnknownOptionIsRefusedWithAHintAtTheEndOfOptions)
{
    try
    {
        ParseCommandLine({"get", "--no-such-option", "A"});
        FAIL() << "accepted";
    }
    catch (const Failure& failure)
    {
        EXPECT_THAT(failure.GetHint(), HasSubstr("'--'"));
    }
}

TEST(CommandLineTest, EveryCommandHasHelpWithExamples)
{
    const std::string help = HelpFor({"--help"});
    for (const Command& command : AllCommands())
    {
        SCOPED_TRACE(command.name);
        EXPECT_EQ(help.find(std::string("\n  ") + command.name + ' ') == std::string::npos,
                  command.Is(Command::IsHidden));
        const std::string own = HelpFor({command.name, "--help"});
        EXPECT_THAT(own, HasSubstr(std::string(command.name) + ' ' + command.synopsis));
        EXPECT_THAT(own, HasSubstr(std::string("Examples:\n  korlo-settings ")));
        EXPECT_EQ(own, HelpFor({command.name, "-h"}));
    }
}

TEST(CommandLineTest, HelpIsGivenWhereverItIsAskedFor)
{
    const std::string get = HelpFor({"get", "--help"});
    for (const Arguments& arguments : {Arguments{"get", "A", "--help"},
                                       {"get", "--help", "A", "-x"},
                                       {"--help", "get"},
                                       {"-h", "get", "A"},
                                       {"get", "--json", "-h"}})
    {
        SCOPED_TRACE(testing::PrintToString(arguments));
        EXPECT_EQ(HelpFor(arguments), get);
    }
    EXPECT_EQ(HelpFor({"-h"}), HelpFor({"--help"}));
    EXPECT_EQ(HelpFor({"resource", "--help"}), HelpFor({"--help"}));
    EXPECT_EQ(HelpFor({"resource", "-h"}), HelpFor({"--help"}));
    EXPECT_EQ(HelpFor({"set", "--help"}), HelpFor({"set", "[G]k", "v", "--help"}));
    EXPECT_EQ(HelpFor({"get", "A", "--version"}), HelpFor({"--version"}));
}

TEST(CommandLineTest, AllHelpHasTheSameForm)
{
    ExpectHelpForm(HelpFor({"--help"}), "korlo-settings");
    for (const Command& command : AllCommands())
    {
        SCOPED_TRACE(command.name);
        ExpectHelpForm(HelpFor({command.name, "--help"}), "korlo-settings");
    }
}

}  // namespace
}  // namespace korlo::settings::cli
