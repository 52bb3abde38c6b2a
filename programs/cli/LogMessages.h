#pragma once
// What the libraries log, as messages of the tool.

namespace korlo::settings::cli
{

/// Writes what is logged to standard error from now on, but not a message that only repeats the one before.
void LogAsMessages();

/// Nothing of what the multi-threaded client says about its connection from now on: who watches is told of that in a
/// better way.
void SilenceConnection();

}  // namespace korlo::settings::cli
