#pragma once
// The server from its command line to its exit status.

#include "ServerOptions.h"

namespace korlo::daemon
{

/// Runs the server until a signal ends it.
/// @return the exit status: 0 ended in order; 1 it could not start, or not save at the end; 2 a wrong command line.
int RunServer(int argc, const char* const* argv);

}  // namespace korlo::daemon
