#include "korlo/osa/TimeMonotonic.h"

#include <gtest/gtest.h>

namespace korlo::osa
{
namespace
{

TEST(TimeMonotonicTest, NeverRunsBackwardsAndMovesOn)
{
    TimeStruct first;
    TimeMonotonic(first);
    TimeStruct last = first;
    while (last == first)
    {
        TimeStruct next;
        TimeMonotonic(next);
        ASSERT_GE(next, last);
        ASSERT_GE(next.nanoseconds, 0);
        ASSERT_LT(next.nanoseconds, 1000000000);
        last = next;
    }
    EXPECT_GT(last, first);
}

TEST(TimeStructTest, ComparesSecondsBeforeNanoseconds)
{
    EXPECT_LT((TimeStruct{1, 999999999}), (TimeStruct{2, 0}));
    EXPECT_LT((TimeStruct{2, 0}), (TimeStruct{2, 1}));
    EXPECT_EQ(TimeStruct(), (TimeStruct{0, 0}));
}

}  // namespace

}  // namespace korlo::osa
