#pragma once
// How a log message becomes a line, and how a line gets out of the process.

#include <cstddef>
#include <string>

#include "korlo/core/Logger.h"

namespace korlo::core
{

/// The name that the running program was started by, without its folders. Lives as long as the process.
const char* GetProgramName();

/// The text with its control characters written as `\n`, `\r`, `\t` or `\xHH`. Backslashes stay as they are: a line is
/// for reading, and what must not happen is that a value looks like a line of its own.
std::string EscapeControls(const std::string& text);

/// The whole line, line feed included: time (UTC), program, process, level, logger, message.
std::string FormatLogLine(const Logger& logger, LogLevel level, const std::string& message);

/// Writes the line in one system call; goes on only if the system takes a part of it. A pipe without a reader costs the
/// line, not the process.
/// @return how much was written; less than the line's size when the system refused the rest.
std::size_t WriteLine(int descriptor, const std::string& line);

}  // namespace korlo::core
