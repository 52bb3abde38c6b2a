#pragma once
// From the arguments of the process to what is to be run.

#include <set>
#include <string>
#include <variant>
#include <vector>

#include "Command.h"

namespace korlo::settings::cli
{

/// A command with all that it needs.
struct CommandRun
{
    const Command* pCommand;  // never null
    Invocation invocation;
};

/// A text that was asked for: help, or the version.
struct Information
{
    std::string text;
};

/// Understands the arguments of the process, without its name.
///
///  - What begins with "--" is an option: one of the tool stands anywhere, one of a command anywhere after the
///    command's name. Its value is the next argument, whatever it is, or follows a '=': `--with FILE`, `--with=FILE`.
///    What is no option is refused. A flag may be repeated, an option with a value not.
///  - Everything else is a word: the name of the command, then its operands, `-5` and `-x` among them.
///  - After a first "--" everything is a word.
///  - The last operand of a command that says so (`set`) needs no "--": if no word follows the operand before it, the
///    next argument is that last operand, whatever it is: `set '[G]k' --json`, `set '[G]k' --json --no-persist`,
///    `set '[G]k' --`; but `set '[G]k' --no-persist 5` has an option between its operands.
///  - `--help` anywhere asks for help, and so does `-h` in the place of the command or as the only operand of one. It
///    is about the command, where one is named. `--version` goes before it.
///
/// @throws Failure with StatusWrongCommandLine.
std::variant<CommandRun, Information> ParseCommandLine(const std::vector<std::string>& arguments);

/// What the first arguments of a command line mean.
struct CommandLineBeginning
{
    std::string name;                   ///< the words of the command's name so far
    const Command* pCommand = nullptr;  ///< null until its name is complete
    Invocation invocation;              ///< what was given so far
    std::set<std::string> given;        ///< the options with a value among it
    const Option* pOpen = nullptr;      ///< the option whose value comes next, if the next argument is one
    bool hasOptions = true;             ///< until a first "--"

    /// All that may be given here: those of the tool, and of the command if there is one.
    std::vector<const Option*> GetOptions() const;
};

/// Understands the beginning of a command line, for who completes what follows.
/// @throws Failure, as ParseCommandLine, for what no further argument can make right.
CommandLineBeginning ParseBeginning(const std::vector<std::string>& arguments);

}  // namespace korlo::settings::cli
