#pragma once
// A heap that has no large block left.

#include <cstddef>
#include <cstdint>

#include "support/Heap.h"

namespace korlo
{

/// Lets no block be larger than half a megabyte, to the end of its scope. On all threads.
///
/// Thread safety: one at a time; GetBytesInUse from any thread.
class ShortMemory
{
public:
    static constexpr std::size_t LargestBytes = 512 * 1024;

    ShortMemory() { heap.largest = LargestBytes; }
    ShortMemory(const ShortMemory&) = delete;
    ShortMemory& operator=(const ShortMemory&) = delete;
    ~ShortMemory() { heap.largest = SIZE_MAX; }

    static std::size_t GetBytesInUse() { return static_cast<std::size_t>(heap.usableBytes.load()); }
};

}  // namespace korlo
