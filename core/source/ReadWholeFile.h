#pragma once
// Reads a file into memory.

#include <cstddef>
#include <limits>
#include <string>

#include "korlo/osa/FileSystem.h"

namespace korlo::core
{

/// The bytes of the file at `path`.
/// @throws osa::Exception naming the path and the reason when it cannot be opened or read, or holds more than
/// `mostBytes`.
std::string ReadWholeFile(const std::string& path, osa::IFileSystem& fileSystem = osa::RealFileSystem(),
                          std::size_t mostBytes = std::numeric_limits<std::size_t>::max());

}  // namespace korlo::core
