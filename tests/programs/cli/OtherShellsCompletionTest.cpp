// TAB in a real zsh and a real fish, each at a real terminal.

#include <optional>
#include <ostream>

#include "CompletionFixture.h"
#include "support/InteractiveShell.h"

namespace korlo::settings::cli
{
namespace
{

struct Shell
{
    const char* name;
    InteractiveShell::Words command;
    std::string setUp;  // what is typed first
};

std::ostream& operator<<(std::ostream& text, const Shell& shell)
{
    return text << shell.name;
}

const Shell Zsh = {"zsh",
                   {"zsh", "-f", "-i"},
                   "autoload -Uz compinit && compinit -u -D && fpath=(" KORLO_COMPLETIONS "/zsh $fpath) && "
                   "autoload -Uz _korlo-settings && compdef _korlo-settings korlo-settings && PS1='ready''> '\r"};

const Shell Fish = {"fish",
                    {"fish", "--no-config", "-i"},
                    "source " KORLO_COMPLETIONS
                    "/korlo-settings.fish; function fish_prompt; echo -n 'ready''> '; end\r"};

class OtherShellsCompletionTest : public CompletingShellTest, public testing::WithParamInterface<Shell>
{
protected:
    OtherShellsCompletionTest()
    {
        _shell.emplace(GetParam().command, InteractiveShell::Variables{{"PATH", SearchPath()},
                                                                       {"HOME", _folder.GetPath()},
                                                                       {"ZDOTDIR", _folder.GetPath()},
                                                                       {"XDG_DATA_HOME", _folder.GetPath()},
                                                                       {"LC_ALL", "C.UTF-8"},
                                                                       {"TERM", "xterm"}});
        _shell->Type("cd " + _folder.GetPath() + '\r' + GetParam().setUp);
        _shell->Await(Prompt);
    }

    /// What the tool was given after this was typed, and the Enter key.
    Arguments ArgumentsAfter(const std::string& keys)
    {
        _shell->Type("korlo-settings " + keys + '\r');
        _shell->Await(Prompt, "was run");
        return GivenArguments();
    }

    static constexpr const char* Prompt = "ready> ";
    std::optional<InteractiveShell> _shell;
};

INSTANTIATE_TEST_SUITE_P(Shells, OtherShellsCompletionTest, testing::Values(Zsh, Fish),
                         testing::PrintToStringParamName());

/// What the shell cannot complete, whatever the completion says. fish reads a candidate a line, with a description
/// behind a TAB, and goes no further than a star. zsh quotes bytes that are no text as they cannot stand within quotes.
bool IsBeyond(const std::string& shell, const std::string& name, const std::string& typed)
{
    return shell == "fish" ? name.find_first_of("\n\t*") != std::string::npos
                           : typed.find_first_of("'\"") == 0 && name.find('\xFF') != std::string::npos;
}

TEST_P(OtherShellsCompletionTest, EveryNameReachesTheProgramAsItIs)
{
    WriteFile(TextOfNameRows());
    for (const NameRow& row : NameRows)
    {
        const Arguments expected = {"--local", "settings.ini", "erase", row.name};
        SCOPED_TRACE(row.name);
        for (const std::string& typed : {row.plain, '\'' + row.single, '"' + row.doubled})
        {
            if (!row.single.empty() && !IsBeyond(GetParam().name, row.name, typed))
            {
                EXPECT_EQ(ArgumentsAfter("--local settings.ini erase " + typed + '\t'), expected)
                    << typed << _shell->GetShown();
            }
        }
    }
}

TEST_P(OtherShellsCompletionTest, CommandsOptionsAndFilesAreCompleted)
{
    WriteFile("[Audio]\nvolume=1\nwidth=2\n");
    Write("a file.ini", "");
    EXPECT_EQ(ArgumentsAfter("subscr\t--js\t"), (Arguments{"subscribed", "--json"}));
    EXPECT_EQ(ArgumentsAfter("check a\\ f\t"), (Arguments{"check", "a file.ini"}));
    EXPECT_EQ(ArgumentsAfter("merge --local=sett\ta\\ f\t"),
              (Arguments{"merge", "--local=settings.ini", "a file.ini"}));
    EXPECT_EQ(ArgumentsAfter("--local settings.ini get '[Audio]v\t"),
              (Arguments{"--local", "settings.ini", "get", "[Audio]volume"}));
}

TEST_P(OtherShellsCompletionTest, WithoutAServerTheLineStaysAsItWasTyped)
{
    EXPECT_EQ(ArgumentsAfter("--server 127.0.0.1:1 get A\t"), (Arguments{"--server", "127.0.0.1:1", "get", "A"}));
    EXPECT_EQ(_shell->GetShown().find("korlo-settings:"), std::string::npos);
}

}  // namespace
}  // namespace korlo::settings::cli
