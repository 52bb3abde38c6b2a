#pragma once
// Checks of what the code itself guarantees, in every build.

namespace korlo::settings::common
{

/// Writes the failed condition and its source to standard error and aborts the process, unless `condition` holds.
void Assert(bool condition, const char* text, const char* source);

}  // namespace korlo::settings::common
