#pragma once
// Runs out of memory at every place where that can happen.

#include <functional>
#include <new>
#include <string>

#include <gtest/gtest.h>

#include "support/Heap.h"

namespace korlo
{

/// Carries the operation out with the first, second, ... allocation failing, until none is left to fail, and has each
/// result checked.
/// @param check hears whether the operation was carried out, and how many blocks it left on the heap.
inline void FailEachAllocation(const std::function<void()>& operation,
                               const std::function<void(bool, long long)>& check)
{
    for (long long allocation = 0;; ++allocation)
    {
        const long long blocks = heap.blocks;
        bool isDone = true;
        heap.failAfter = allocation;
        try
        {
            operation();
        }
        catch (const std::bad_alloc&)
        {
            isDone = false;
        }
        const bool hasFailed = heap.failAfter < 0;
        heap.failAfter = -1;
        const long long left = heap.blocks - blocks;
        SCOPED_TRACE("allocation " + std::to_string(allocation));
        check(isDone, left);
        if (!hasFailed)
        {
            EXPECT_GT(allocation, 0);
            EXPECT_TRUE(isDone);
            return;
        }
        ASSERT_FALSE(testing::Test::HasFailure());
    }
}

}  // namespace korlo
