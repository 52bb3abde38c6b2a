#pragma once
// Reads a file into memory.

#include <string>

namespace korlo::core
{

/// The bytes of the file at `path`.
/// @throws osa::Exception naming the path and the system's reason when it cannot be opened or read.
std::string ReadWholeFile(const char* path);

}  // namespace korlo::core
