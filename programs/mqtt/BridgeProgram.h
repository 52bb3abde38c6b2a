#pragma once
// The program, without main.

namespace korlo::settings::mqtt
{

/// Runs the bridge until SIGTERM or SIGINT; returns the exit status. Once a process.
int RunBridge(int argc, const char* const* argv);

}  // namespace korlo::settings::mqtt
