#pragma once
// A heap that has no large block left. Replaces the global operator new: for one source of a program of its own.

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <limits>
#include <new>

#include <malloc.h>

namespace korlo
{

/// Lets no block be larger than half a megabyte, to the end of its scope. On all threads.
///
/// Thread safety: one at a time; GetBytesInUse from any thread.
class ShortMemory
{
public:
    static constexpr std::size_t LargestBytes = 512 * 1024;

    ShortMemory() { s_largest = LargestBytes; }
    ShortMemory(const ShortMemory&) = delete;
    ShortMemory& operator=(const ShortMemory&) = delete;
    ~ShortMemory() { s_largest = std::numeric_limits<std::size_t>::max(); }

    static std::size_t GetBytesInUse() { return s_bytesInUse; }

    static void* Allocate(std::size_t size)
    {
        void* const pBlock = size > s_largest ? nullptr : std::malloc(size);
        if (pBlock == nullptr)
        {
            throw std::bad_alloc();
        }
        s_bytesInUse += malloc_usable_size(pBlock);
        return pBlock;
    }

    static void Free(void* pBlock)
    {
        s_bytesInUse -= pBlock != nullptr ? malloc_usable_size(pBlock) : 0;
        std::free(pBlock);
    }

private:
    inline static std::atomic<std::size_t> s_bytesInUse = 0;
    inline static std::atomic<std::size_t> s_largest = std::numeric_limits<std::size_t>::max();
};

}  // namespace korlo

void* operator new(std::size_t size)
{
    return korlo::ShortMemory::Allocate(size);
}

void operator delete(void* pBlock) noexcept
{
    korlo::ShortMemory::Free(pBlock);
}

void operator delete(void* pBlock, std::size_t) noexcept
{
    korlo::ShortMemory::Free(pBlock);
}
