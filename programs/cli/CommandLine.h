#pragma once
// From the arguments of the process to what is to be run.

#include <optional>
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
/// Options of the tool stand before the command. An operand may be any text, one that looks like an option, too:
///  - a command that takes a fixed number of operands takes them first, and its options only behind them:
///    `set '[G]k' -5`, `set '[G]k' --help`, `set '[G]k' --no-persist --no-persist`; a flag in front of them all counts
///    when there would be too many otherwise: `merge --no-persist FILE`;
///  - a command that takes a list of them takes its options from the end of the list, and nothing else of the list as
///    an option: `get -x`, `watch A --count 3`. After a first "--" they are all operands: `get -- --help`;
///  - `-h` or `--help` as all that follows the command asks for its help.
///
/// @throws Failure with StatusWrongCommandLine.
std::variant<CommandRun, Information> ParseCommandLine(const std::vector<std::string>& arguments);

}  // namespace korlo::settings::cli
