#pragma once
// A bash at a terminal, and a person who types.

#include "support/InteractiveShell.h"

namespace korlo
{

/// A bash without anybody's configuration.
///
///     InteractiveBash bash({{"PATH", path}});
///     bash.Type("ec\t hello\r");
///     bash.AwaitPrompt();
///
/// Thread safety: none of its own; the owner guards it.
class InteractiveBash : public InteractiveShell
{
public:
    /// Returns at the first prompt.
    /// @param variables the environment, but for what makes a terminal predictable.
    explicit InteractiveBash(Variables variables)
        : InteractiveShell({"bash", "--norc", "--noprofile", "-i"}, Predictable(std::move(variables)))
    {
        AwaitPrompt();
    }

    /// @param before what is to be shown before the prompt.
    void AwaitPrompt(std::string_view before = "") { Await(Prompt, before); }

private:
    static constexpr const char* Prompt = "ready> ";

    static Variables Predictable(Variables variables)
    {
        variables.insert({{"LC_ALL", "C.UTF-8"}, {"TERM", "dumb"}, {"INPUTRC", "/dev/null"}, {"PS1", Prompt}});
        return variables;
    }
};

}  // namespace korlo
