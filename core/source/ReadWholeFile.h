#pragma once
// Reads a file into memory.

#include <string>

#include "korlo/osa/FileSystem.h"

namespace korlo::core
{

/// The bytes of the file at `path`.
/// @throws osa::Exception naming the path and the system's reason when it cannot be opened or read.
std::string ReadWholeFile(const std::string& path, osa::IFileSystem& fileSystem = osa::RealFileSystem());

}  // namespace korlo::core
