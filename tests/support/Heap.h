#pragma once
// Counts and fails the allocations of a test program that Heap.cpp, which replaces the global operator new, is part of.

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace korlo
{

/// What has gone through operator new and delete, of all threads.
///
/// Thread safety: all members, from any thread.
struct Heap
{
    std::atomic<long long> allocations = 0;
    std::atomic<long long> blocks = 0;          // that are allocated now
    std::atomic<long long> requestedBytes = 0;  // of all allocations, whether given back or not
    std::atomic<long long> usableBytes = 0;     // of the blocks that are allocated now
    std::atomic<long long> failAfter = -1;      // so many more allocations go well, then one fails; below 0 none does
    std::atomic<int> failures = 1;              // how many in a row fail then
    std::atomic<const char*> failingThread = nullptr;  // the name of the only one that fails; null for any
    std::atomic<std::size_t> largest = SIZE_MAX;       // bytes that one allocation may take
};

extern Heap heap;

}  // namespace korlo
