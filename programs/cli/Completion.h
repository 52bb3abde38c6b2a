#pragma once
// What an argument that is still being typed may become.

#include <set>
#include <string>
#include <vector>

namespace korlo::settings::cli
{

/// The answer to one press of TAB.
struct Completion
{
    bool isFile = false;               ///< A path belongs there, which the shell completes better than we could.
    std::set<std::string> candidates;  ///< whole arguments, each of which begins with what is typed
};

/// Completes a command line, by the tables of commands and options and by what the settings hold: of the server or file
/// that the line names, else of those that the tool would take.
///
///  - Options are offered from the first '-' on, those of the command behind its name. One that has a value is offered
///    once.
///  - A setting is offered in two steps, since there may be thousands: first '[Group]', and, once that is the only one
///    left, its keys. A group whose name holds a bracket is none that '[Group]Key' can name.
///  - What the command line could not carry, or would be taken for an option, is not offered.
///
/// @param words without the name of the tool. The last one is being typed, and may be empty.
/// @throws Failure, and what the client library throws, where there is nothing to say.
Completion Complete(std::vector<std::string> words);

}  // namespace korlo::settings::cli
