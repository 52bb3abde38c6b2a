#pragma once
// The command line of the bridge.

#include <string>

#include "EarlyExit.h"

namespace korlo::settings::mqtt
{

/// What the command line says.
///
/// Thread safety: none of its own; the owner guards it.
struct BridgeOptions
{
    std::string configuration;  ///< the path of the file
    int logLevel = 3;
};

/// Reads the command line.
/// @throws EarlyExit with status 2 and one line for a wrong one; with status 0 and the text that --help or --version
///         asks for.
BridgeOptions ParseOptions(int argc, const char* const* argv);

}  // namespace korlo::settings::mqtt
