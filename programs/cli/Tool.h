#pragma once
// The whole tool, but for what belongs to a process.

#include <string>
#include <vector>

#include "Failure.h"

namespace korlo::settings::cli
{

/// Runs what the arguments (without the name of the program) ask for. Results go to standard output; whatever goes
/// wrong becomes a message on standard error and a status. Throws nothing.
ExitStatus RunTool(const std::vector<std::string>& arguments);

}  // namespace korlo::settings::cli
