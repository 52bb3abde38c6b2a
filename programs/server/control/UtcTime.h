#pragma once
// Points in time as answers of the control door show them.

#include <chrono>
#include <string>

namespace korlo::daemon
{

/// UTC with milliseconds, as ISO 8601 has it: "2026-11-22T04:58:30.123Z".
std::string UtcText(std::chrono::system_clock::time_point time);

}  // namespace korlo::daemon
