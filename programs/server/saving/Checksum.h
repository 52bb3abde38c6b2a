#pragma once
// The checksum of what is stored.

#include <cstdint>
#include <string_view>

namespace korlo::daemon
{

/// The CRC-32 of gzip, zip and PNG. It tells a text from any other that differs from it in up to 32 bits next to each
/// other, so that no turned bit goes unnoticed, and from a text of any other kind but once in four thousand million.
///
/// @param before what this returned for the text in front of this one; 0 at the beginning.
std::uint32_t Checksum(std::string_view text, std::uint32_t before = 0);

}  // namespace korlo::daemon
