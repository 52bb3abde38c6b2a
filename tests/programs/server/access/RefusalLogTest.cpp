#include "access/RefusalLog.h"

#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/LogCapture.h"

namespace korlo::daemon
{
namespace
{

using ::testing::ElementsAre;
using ::testing::SizeIs;

}  // namespace

TEST(RefusalLogTest, WarnsOnceForEachGroupInAMinute)
{
    const LogCapture log;
    RefusalLog refusals("user www-data, pid 812 (php-fpm)");
    refusals.Add("merge", {"Audio", "Network"}, {100, 0});
    refusals.Add("overwrite", {"Audio"}, {159, 0});
    refusals.Add("merge", {"Audio"}, {159, 0});
    refusals.Add("merge", {"Audio"}, {160, 0});
    refusals.Add("merge", {"Network"}, {160, 0});
    EXPECT_THAT(log.GetMessages(),
                ElementsAre("4 Access: user www-data, pid 812 (php-fpm): merge of 'Audio' is refused",
                            "4 Access: user www-data, pid 812 (php-fpm): merge of 'Network' is refused",
                            "4 Access: user www-data, pid 812 (php-fpm): merge of 'Audio' is refused, as were 2 more "
                            "since the last warning",
                            "4 Access: user www-data, pid 812 (php-fpm): merge of 'Network' is refused"));
}

TEST(RefusalLogTest, EverNewGroupsShareOneWarningAMinute)
{
    const LogCapture log;
    RefusalLog refusals("x");
    for (int number = 0; number < 10'000; ++number)
    {
        refusals.Add("merge", {"G" + std::to_string(number)}, {100, 0});
    }
    ASSERT_THAT(log.GetMessages(), SizeIs(RefusalLog::MostGroups + 1));
    EXPECT_EQ(log.GetMessages().back(), "4 Access: x: merge of other groups is refused");
}

TEST(RefusalLogTest, WhatIsForgottenForNewGroupsIsToldFirst)
{
    const LogCapture log;
    RefusalLog refusals("x");
    for (std::size_t number = 0; number < RefusalLog::MostGroups; ++number)
    {
        refusals.Add("merge", {"G" + std::to_string(number)}, {100, 0});
    }
    refusals.Add("merge", {"G7"}, {101, 0});
    refusals.Add("merge", {"New"}, {170, 0});
    ASSERT_THAT(log.GetMessages(), SizeIs(RefusalLog::MostGroups + 2));
    EXPECT_EQ(log.GetMessages()[RefusalLog::MostGroups],
              "4 Access: x: 'G7' was refused 1 more times since the last warning");
    EXPECT_EQ(log.GetMessages().back(), "4 Access: x: merge of 'New' is refused");
}

TEST(RefusalLogTest, ALongNameIsCut)
{
    const LogCapture log;
    RefusalLog refusals("x");
    refusals.Add("merge", {std::string(1'000'000, 'n')}, {100, 0});
    EXPECT_THAT(log.GetMessages(),
                ElementsAre("4 Access: x: merge of '" + std::string(RefusalLog::MostBytes, 'n') + "...' is refused"));
}

}  // namespace korlo::daemon
