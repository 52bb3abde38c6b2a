#pragma once
// printf-style formatting into a string, shared by the exceptions and the logger.

#include <cstdarg>
#include <string>

namespace korlo::core
{

/// The text that vprintf would print. Short texts are formatted on a small stack buffer, because a settings thread has
/// 32768 bytes of stack; longer ones are formatted a second time into the string. `args` is left as va_start made it.
__attribute__((format(printf, 1, 0))) std::string FormatText(const char* format, va_list args);

}  // namespace korlo::core
