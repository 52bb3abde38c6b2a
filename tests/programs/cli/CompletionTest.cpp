// What TAB offers, as the tool answers the shells.

#include "cli/Completion.h"

#include <chrono>
#include <sstream>

#include "ToolFixture.h"
#include "cli/Command.h"
#include "cli/Failure.h"
#include "korlo/osa/TcpListener.h"
#include "support/ServerProcess.h"

namespace korlo::settings::cli
{
namespace
{

using Names = std::set<std::string>;

class CompletionTest : public ToolTest
{
protected:
    /// @param words those of the command line that is typed. The settings are those of the file.
    Completion CompleteOnFile(const Arguments& words) const
    {
        Arguments all = {"--local", _path};
        all.insert(all.end(), words.begin(), words.end());
        return Complete(all);
    }

    Names OnFile(const Arguments& words) const { return CompleteOnFile(words).candidates; }

    /// Runs the tool as a shell does, with time enough for a busy machine.
    static ToolResult RunComplete(const Arguments& words)
    {
        Arguments all = {"complete", "--within", "60000", "--"};
        all.insert(all.end(), words.begin(), words.end());
        return Run(all);
    }
};

TEST_F(CompletionTest, CommandsAreOfferedWordByWord)
{
    EXPECT_EQ(Complete({"re"}).candidates, (Names{"resource", "restore"}));
    EXPECT_EQ(Complete({"resource", ""}).candidates, (Names{"reserve", "show"}));
    EXPECT_EQ(Complete({"--json", "access", "c"}).candidates, Names{"check"});
    EXPECT_EQ(Complete({"nothing-begins-so"}).candidates, Names());
    EXPECT_EQ(Complete({}).candidates, Complete({""}).candidates);
}

TEST_F(CompletionTest, EveryCommandThatHelpListsIsOffered)
{
    const Names offered = Complete({""}).candidates;
    for (const cli::Command& command : AllCommands())
    {
        const std::string name = command.name;
        EXPECT_EQ(offered.count(name.substr(0, name.find(' '))), command.Is(cli::Command::IsHidden) ? 0u : 1u) << name;
    }
}

TEST_F(CompletionTest, OptionsAreThoseOfTheToolAndOfTheCommand)
{
    EXPECT_EQ(Complete({"--"}).candidates,
              (Names{"--control", "--help", "--json", "--local", "--server", "--version"}));
    EXPECT_EQ(Complete({"overwrite", "A", "--w"}).candidates, Names{"--with"});
    EXPECT_EQ(Complete({"log", "-"}).candidates.count("--follow"), 1u);
    EXPECT_EQ(Complete({"get", "--w"}).candidates, Names());
    EXPECT_EQ(Complete({"watch", "--count", "3", "--c"}).candidates, Names{"--control"});
    WriteFile("[A]\nk=v\n");
    EXPECT_EQ(OnFile({"get", "--", "--"}), Names());
}

TEST_F(CompletionTest, FilesAreLeftToTheShell)
{
    WriteFile("[A]\nk=v\n");
    for (const Arguments& words : {Arguments{"--local", ""},
                                   {"--local=/et"},
                                   {"get", "--control", "x"},
                                   {"overwrite", "A", "--with=f"},
                                   {"merge", ""},
                                   {"check", "a", "b", "c"},
                                   {"test-and-merge", "a", ""}})
    {
        SCOPED_TRACE(testing::PrintToString(words));
        EXPECT_TRUE(Complete(words).isFile);
        EXPECT_EQ(Complete(words).candidates, Names());
    }
    for (const Arguments& words : {Arguments{"merge", "a", ""}, {"get", ""}, {"--json=f"}, {"--server", ""}})
    {
        SCOPED_TRACE(testing::PrintToString(words));
        EXPECT_FALSE(CompleteOnFile(words).isFile);
    }
}

TEST_F(CompletionTest, GroupsAreOfferedWhereAnOperandNamesOne)
{
    WriteFile("[Audio]\nk=v\n[Net/Guest]\nk=v\n[Net/Wifi]\nk=v\n");
    for (const char* command : {"get", "overwrite", "erase", "restore", "list", "watch", "log", "diff"})
    {
        SCOPED_TRACE(command);
        EXPECT_EQ(OnFile({command, "Net/"}), (Names{"Net/Guest", "Net/Wifi"}));
    }
    EXPECT_EQ(OnFile({"erase", "Audio", "N"}), (Names{"Net/Guest", "Net/Wifi"}));
    EXPECT_EQ(OnFile({"list", "Audio", "N"}), Names());
    EXPECT_EQ(OnFile({"access", "check", "root", ""}), (Names{"change", "read"}));
    EXPECT_EQ(OnFile({"access", "check", "root", "read", "A"}), Names{"Audio"});
}

TEST_F(CompletionTest, SettingsAreOfferedGroupByGroup)
{
    WriteFile("[Audio]\nmute=0\nvolume=1\n[Net]\na=1\n[Network]\nb=2\n[a[b]\nk=1\n");
    for (const char* command : {"get", "set", "explain"})
    {
        SCOPED_TRACE(command);
        EXPECT_EQ(OnFile({command, "["}), (Names{"[Audio]", "[Net]", "[Network]"}));
        EXPECT_EQ(OnFile({command, "[Net"}), (Names{"[Net]", "[Network]"}));
        EXPECT_EQ(OnFile({command, "[Net]"}), Names{"[Net]a"});
        EXPECT_EQ(OnFile({command, "[Au"}), (Names{"[Audio]mute", "[Audio]volume"}));
        EXPECT_EQ(OnFile({command, "[Audio]v"}), Names{"[Audio]volume"});
        EXPECT_EQ(OnFile({command, "[Nowhere]"}), Names());
    }
    EXPECT_EQ(OnFile({"set", ""}), OnFile({"set", "["}));
    EXPECT_EQ(OnFile({"set", "[Audio]volume", ""}), Names());
    EXPECT_EQ(OnFile({"explain", "a["}), Names{"a[b"});
    EXPECT_EQ(OnFile({"explain", "a[b", ""}), Names{"k"});
}

TEST_F(CompletionTest, AnEmptyGroupIsOfferedByItself)
{
    WriteFile("[Empty]\n");
    EXPECT_EQ(OnFile({"set", "[E"}), Names{"[Empty]"});
}

TEST_F(CompletionTest, WhatBeginsWithABracketIsAGroupWhereNoSettingCanBe)
{
    WriteFile("[\"[odd]\"]\nk=v\n");
    EXPECT_EQ(OnFile({"erase", "["}), Names{"[odd]"});
    EXPECT_EQ(OnFile({"get", ""}), Names());
    EXPECT_EQ(OnFile({"get", "["}), Names());
}

TEST_F(CompletionTest, ResourcesAndTheirConsumersAreOffered)
{
    WriteFile("[Resources/Bandwidth]\nTotalAvailable=50\n[Resources/Bandwidth/Consumers/Camera]\n[Resources/Disk]\n"
              "[Resources/Disk/Consumers/Log]\n[Resources/Disk/Consumers/Log/Old]\n");
    EXPECT_EQ(OnFile({"resource", "show", ""}), (Names{"Bandwidth", "Disk"}));
    EXPECT_EQ(OnFile({"resource", "reserve", "B"}), Names{"Bandwidth"});
    EXPECT_EQ(OnFile({"resource", "reserve", "Disk", ""}), Names{"Log"});
    EXPECT_EQ(OnFile({"resource", "reserve", "Disk", "Log", ""}), Names());
}

TEST_F(CompletionTest, AStarThatIsTypedIsAStar)
{
    WriteFile("[Net*x]\nk=v\n[Network]\nk=v\n");
    EXPECT_EQ(OnFile({"get", "Net*"}), Names{"Net*x"});
}

TEST_F(CompletionTest, WhatWouldBeTakenForAnOptionIsNotOffered)
{
    WriteFile("[--json]\nk=v\n[-h]\nk=v\n[-x]\nk=v\n");
    EXPECT_EQ(OnFile({"erase", ""}), Names{"-x"});
    EXPECT_EQ(OnFile({"erase", "--", ""}), (Names{"--json", "-h", "-x"}));
    EXPECT_EQ(OnFile({"erase", "--", "--"}), Names{"--json"});
}

TEST_F(CompletionTest, ANameWithAZeroByteIsNotOffered)
{
    WriteFile("[\"a\\x00b\"]\nk=v\n");
    EXPECT_EQ(OnFile({"get", ""}), Names());
}

TEST_F(CompletionTest, EveryOperandAndValueIsKnown)
{
    WriteFile("[A]\nk=v\n");
    for (const cli::Command& command : AllCommands())
    {
        std::istringstream words(command.name);
        Arguments line;
        for (std::string word; words >> word;)
        {
            line.push_back(word);
        }
        for (const Option& option : command.options)
        {
            Arguments withOption = line;
            withOption.insert(withOption.end(), {option.name, ""});
            EXPECT_NO_THROW(CompleteOnFile(withOption)) << command.name << ' ' << option.name;
        }
        for (std::size_t number = 0; number <= command.fewestOperands + 1; ++number)
        {
            line.emplace_back();
            EXPECT_NO_THROW(CompleteOnFile(line)) << command.name << ", operand " << number;
        }
    }
    for (const Option& option : ToolOptions())
    {
        EXPECT_NO_THROW(CompleteOnFile({"get", option.name, ""})) << option.name;
    }
}

TEST_F(CompletionTest, AShellIsAnsweredALineForEachCandidate)
{
    WriteFile("[My Group]\nk=v\n[\"My\\nLine\"]\nk=v\n[Mine]\nk=v\n");
    ExpectResult(RunComplete({"--local", _path, "get", "M"}), StatusDone, "Mine\nMy Group\n");
    ExpectResult(RunComplete({"--local", ""}), StatusDone, "");
    using namespace std::string_literals;
    ExpectResult(Run({"complete", "--null", "--within", "60000", "--", "--local", _path, "get", "My"}), StatusDone,
                 "words\0My\nLine\0My Group\0"s);
    ExpectResult(Run({"complete", "--null", "--", "--local", ""}), StatusDone, "files\0"s);
}

TEST_F(CompletionTest, WhateverIsWrongNothingIsSaid)
{
    WriteFile("[A]\nk=v\nnonsense\n");
    ExpectResult(RunComplete({"--local", _path, "get", ""}), StatusDone, "A\n");
    for (const Arguments& words : {Arguments{"no-such-command", ""},
                                   {"--no-such-option", "get", ""},
                                   {"--count", "x", "watch", ""},
                                   {"--server", "nonsense", "get", ""},
                                   {"--server", "127.0.0.1:1", "get", ""},
                                   {"--server", "unix:/nowhere/at/all", "set", "["},
                                   {"--local", "/nowhere/at/all", "get", ""},
                                   {"--local", "/", "get", ""}})
    {
        SCOPED_TRACE(testing::PrintToString(words));
        ExpectResult(RunComplete(words), StatusDone, "");
    }
}

TEST_F(CompletionTest, AServerThatDoesNotAnswerIsNotWaitedFor)
{
    const osa::TcpListener deaf("127.0.0.1", 0);
    const std::string address = "127.0.0.1:" + std::to_string(deaf.GetPort());
    const auto begin = std::chrono::steady_clock::now();
    ExpectResult(Run({"complete", "--", "--server", address, "get", ""}), StatusDone, "");
    // Anything else waits for 15 seconds. The limit is far less, but this machine may be busy.
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(10));
}

TEST_F(CompletionTest, NamesComeFromTheServerWithAThousandGroupsToo)
{
    constexpr int count = 1000;
    std::string defaults = "[Odd One]\nkey=1\n";
    std::string expected = "Odd One\n";
    for (int group = 0; group < count; ++group)
    {
        const std::string name = "Site/" + std::to_string(10'000 + group);
        expected += name + '\n';
        defaults += '[' + name + "]\n";
        for (const char* key : {"a", "b", "c", "d", "e", "f", "g", "h", "i", "j"})
        {
            defaults += std::string(key) + "=value of this key\n";
        }
    }
    const ServerProcess server({"--defaults", Write("defaults.ini", defaults), "--user", PathOf("user.ini")});
    const std::string address = "127.0.0.1:" + std::to_string(server.GetPort());
    const auto begin = std::chrono::steady_clock::now();
    const ToolResult all = RunComplete({"--server", address, "get", ""});
    // A release build on a machine that does nothing else takes 20 ms.
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(5));
    ExpectResult(all, StatusDone, expected);
    ExpectResult(RunComplete({"--server=" + address, "set", "[Odd"}), StatusDone, "[Odd One]key\n");
}

}  // namespace
}  // namespace korlo::settings::cli
