// TAB in a real bash at a real terminal.

#include <optional>

#include "CompletionFixture.h"
#include "support/InteractiveBash.h"

namespace korlo::settings::cli
{
namespace
{

/// A bash that has the completion.
class BashCompletionTest : public CompletingShellTest
{
protected:
    BashCompletionTest() { Start(); }

    void Start(const std::string& setting = ":", const std::string& locale = "C.UTF-8")
    {
        _bash.emplace(InteractiveBash::Variables{
            {"PATH", PathOf("bin") + ':' + std::getenv("PATH")}, {"HOME", _folder.GetPath()}, {"LC_ALL", locale}});
        TypeLine("cd " + _folder.GetPath());
        TypeLine("source " KORLO_COMPLETIONS "/korlo-settings.bash");
        TypeLine("source " KORLO_COMPLETIONS "/korlo-settings-server.bash");
        TypeLine(setting);
    }

    void TypeLine(const std::string& line)
    {
        _bash->Type(line + '\r');
        _bash->AwaitPrompt();
    }

    /// What the tool was given after this was typed, and the Enter key. None if it was not run.
    Arguments ArgumentsAfter(const std::string& keys)
    {
        std::filesystem::remove(PathOf("arguments"));
        TypeLine(keys);
        return GivenArguments();
    }

    /// The same for a command on the file.
    Arguments OnFileAfter(const std::string& keys)
    {
        Arguments arguments = ArgumentsAfter("korlo-settings --local settings.ini " + keys);
        arguments.erase(arguments.begin(), arguments.begin() + std::min<std::ptrdiff_t>(2, std::ssize(arguments)));
        return arguments;
    }

    std::optional<InteractiveBash> _bash;
};

TEST_F(BashCompletionTest, EveryNameReachesTheProgramAsItIs)
{
    WriteFile(TextOfNameRows());
    for (const NameRow& row : NameRows)
    {
        const Arguments expected = {"erase", row.name};
        SCOPED_TRACE(row.name);
        EXPECT_EQ(OnFileAfter("erase " + row.plain + '\t'), expected) << _bash->GetShown();
        if (!row.single.empty())
        {
            EXPECT_EQ(OnFileAfter("erase '" + row.single + '\t'), expected) << _bash->GetShown();
            EXPECT_EQ(OnFileAfter("erase \"" + row.doubled + '\t'), expected) << _bash->GetShown();
        }
    }
}

TEST_F(BashCompletionTest, SettingsAreCompletedGroupByGroup)
{
    WriteFile("[Audio Out]\nmute it=0\nvolume=1\n[Net:1=a]\nkey=1\nother=2\n[Network]\nk=1\n");
    EXPECT_EQ(OnFileAfter("set '[Au\tv\t 5"), (Arguments{"set", "[Audio Out]volume", "5"}));
    EXPECT_EQ(OnFileAfter("set [Au\tm\t 5"), (Arguments{"set", "[Audio Out]mute it", "5"}));
    EXPECT_EQ(OnFileAfter("get \"[Net:\tk\t"), (Arguments{"get", "[Net:1=a]key"}));
    EXPECT_EQ(OnFileAfter("get [Net\t:1\to\t"), (Arguments{"get", "[Net:1=a]other"}));
    EXPECT_EQ(OnFileAfter("get '[Audio Out]'vo\t"), (Arguments{"get", "[Audio Out]volume"}));
}

TEST_F(BashCompletionTest, WhatSeveralNamesShareIsTypedForThePerson)
{
    WriteFile("[Network One]\nk=v\n[Network Two]\nk=v\n");
    EXPECT_EQ(OnFileAfter("erase N\tT\t"), (Arguments{"erase", "Network Two"}));
    EXPECT_EQ(OnFileAfter("erase 'N\tO\t"), (Arguments{"erase", "Network One"}));
}

TEST_F(BashCompletionTest, NoCharacterHasToBreakWords)
{
    WriteFile("[a:b=c d]\nk=v\n");
    for (const char* breaks :
         {"COMP_WORDBREAKS=' '", "COMP_WORDBREAKS=${COMP_WORDBREAKS//[:=]/}", "COMP_WORDBREAKS=$COMP_WORDBREAKS/.-"})
    {
        SCOPED_TRACE(breaks);
        Start(breaks);
        for (const char* typed : {"a", "a:", "a:b=", "a:b=c\\ ", "'a:", "\"a:b=c "})
        {
            EXPECT_EQ(OnFileAfter("erase " + std::string(typed) + '\t'), (Arguments{"erase", "a:b=c d"}))
                << typed << _bash->GetShown();
        }
    }
}

TEST_F(BashCompletionTest, ATerminalWithoutUnicodeGetsTheSameBytes)
{
    WriteFile("[Größe]\nk=v\n");
    Start(":", "C");
    EXPECT_EQ(OnFileAfter("erase Gr\t"), (Arguments{"erase", "Größe"}));
}

TEST_F(BashCompletionTest, CommandsOptionsAndFilesAreCompleted)
{
    WriteFile("[A]\nk=v\n");
    Write("a file.ini", "");
    EXPECT_EQ(ArgumentsAfter("korlo-settings sub\t--js\t"), (Arguments{"subscribed", "--json"}));
    EXPECT_EQ(ArgumentsAfter("korlo-settings res\to\tsh\tX"), (Arguments{"resource", "show", "X"}));
    EXPECT_EQ(ArgumentsAfter("korlo-settings check a\\ f\t"), (Arguments{"check", "a file.ini"}));
    EXPECT_EQ(ArgumentsAfter("korlo-settings merge --local=sett\ta\\ f\t"),
              (Arguments{"merge", "--local=settings.ini", "a file.ini"}));
    EXPECT_EQ(ArgumentsAfter("korlo-settings merge < a\\ f\t"), (Arguments{"merge"}));
    EXPECT_EQ(ArgumentsAfter("korlo-settings --local ~/settings.ini get A\t"),
              (Arguments{"--local", PathOf("settings.ini"), "get", "A"}));
}

TEST_F(BashCompletionTest, OptionsOfTheServerAreCompleted)
{
    WriteFile("");
    EXPECT_EQ(ArgumentsAfter("korlo-settings-server --us\tsett\t--save-d\t5 --defaults=sett\t--ch\t"),
              (Arguments{"--user", "settings.ini", "--save-delay", "5", "--defaults=settings.ini", "--check"}));
    EXPECT_EQ(ArgumentsAfter("korlo-settings-server --save-delay s\t"), (Arguments{"--save-delay", "s"}));
}

TEST_F(BashCompletionTest, NothingThatIsTypedIsRun)
{
    WriteFile("[A]\nk=v\n");
    for (const char* word : {"\"$(touch ran)\"", "'`touch ran`'", "\"`touch ran`\"", "$'\\'; touch ran; \\''",
                             "\\$\\(touch\\ ran\\)", "$'a\\"})
    {
        SCOPED_TRACE(word);
        // The line is rubbed out, and another one told from what is typed by its output alone.
        _bash->Type("korlo-settings --local settings.ini get " + std::string(word) +
                    " A\t\x15"
                    "echo don\\e\r");
        _bash->AwaitPrompt("done");
        EXPECT_FALSE(std::filesystem::exists(PathOf("ran")));
    }
}

TEST_F(BashCompletionTest, NothingStaysBehindInTheShell)
{
    WriteFile("[A]\nk=v\n");
    TypeLine("compgen -v | grep -v 'COMP_WORDBREAKS' > before");
    OnFileAfter("get A\t");
    TypeLine("compgen -v | grep -v 'COMP_WORDBREAKS' > after");
    EXPECT_EQ(Read(PathOf("before")), Read(PathOf("after")));
    EXPECT_NE(Read(PathOf("before")), "");
}

TEST_F(BashCompletionTest, WithoutAServerTheLineStaysAsItWasTyped)
{
    EXPECT_EQ(ArgumentsAfter("korlo-settings --server 127.0.0.1:1 get A\t"),
              (Arguments{"--server", "127.0.0.1:1", "get", "A"}));
    EXPECT_EQ(_bash->GetShown().find("korlo-settings:"), std::string::npos);
}

}  // namespace
}  // namespace korlo::settings::cli
