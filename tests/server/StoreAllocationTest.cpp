// What the store does when the heap has nothing left. A program of its own: see support/Heap.h.

#include <functional>
#include <new>
#include <string>

#include <gtest/gtest.h>

#include "settings/server/SerializationManager.h"
#include "support/Heap.h"

namespace korlo::settings
{
namespace
{

/// Carries the operation out with the first, second, ... allocation failing, until none is left to fail, and has each
/// result checked.
/// @param check hears whether the operation was carried out, and how many blocks it left on the heap.
void FailEachAllocation(const std::function<void()>& operation, const std::function<void(bool, long long)>& check)
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

TEST(StoreAllocationTest, ASerializationManagerThatRunsOutOfMemoryLeaksNothing)
{
    FailEachAllocation([] { const server::SerializationManager manager; },
                       [](bool, long long left) { EXPECT_EQ(left, 0); });
}

}  // namespace
}  // namespace korlo::settings
