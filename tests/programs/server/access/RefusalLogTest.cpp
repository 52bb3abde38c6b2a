#include "access/RefusalLog.h"

#include <string>
#include <thread>
#include <vector>

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
    RefusalLog refusals;
    const std::string client = "user www-data, pid 812 (php-fpm)";
    refusals.Add("33 php-fpm", client, "merge", {"Audio", "Network"}, {100, 0});
    refusals.Add("33 php-fpm", client, "overwrite", {"Audio"}, {159, 0});
    refusals.Add("33 php-fpm", client, "merge", {"Audio"}, {159, 0});
    refusals.Add("33 php-fpm", client, "merge", {"Audio"}, {160, 0});
    refusals.Add("33 php-fpm", client, "merge", {"Network"}, {160, 0});
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
    RefusalLog refusals;
    for (int number = 0; number < 10'000; ++number)
    {
        refusals.Add("x", "x", "merge", {"G" + std::to_string(number)}, {100, 0});
    }
    ASSERT_THAT(log.GetMessages(), SizeIs(RefusalLog::MostGroups + 1));
    EXPECT_EQ(log.GetMessages().back(), "4 Access: x: merge of other groups is refused");
}

TEST(RefusalLogTest, WhatIsForgottenForNewGroupsIsToldFirst)
{
    const LogCapture log;
    RefusalLog refusals;
    for (std::size_t number = 0; number < RefusalLog::MostGroups; ++number)
    {
        refusals.Add("x", "x", "merge", {"G" + std::to_string(number)}, {100, 0});
    }
    refusals.Add("x", "x", "merge", {"G7"}, {101, 0});
    refusals.Add("x", "x", "merge", {"New"}, {170, 0});
    ASSERT_THAT(log.GetMessages(), SizeIs(RefusalLog::MostGroups + 2));
    EXPECT_EQ(log.GetMessages()[RefusalLog::MostGroups],
              "4 Access: x: 'G7' was refused 1 more times since the last warning");
    EXPECT_EQ(log.GetMessages().back(), "4 Access: x: merge of 'New' is refused");
}

TEST(RefusalLogTest, ALongNameIsCut)
{
    const LogCapture log;
    RefusalLog refusals;
    refusals.Add("x", "x", "merge", {std::string(1'000'000, 'n')}, {100, 0});
    EXPECT_THAT(log.GetMessages(),
                ElementsAre("4 Access: x: merge of '" + std::string(RefusalLog::MostBytes, 'n') + "...' is refused"));
}

TEST(RefusalLogTest, AClientThatConnectsAnewIsTheSameClient)
{
    const LogCapture log;
    RefusalLog refusals;
    for (int pid = 1; pid <= 5; ++pid)
    {
        refusals.Add("33 curl", "pid " + std::to_string(pid), "merge", {"Audio"}, {100, 0});
    }
    refusals.Add("34 curl", "pid 6", "merge", {"Audio"}, {100, 0});
    refusals.Add("33 curl", "pid 7", "merge", {"Audio"}, {160, 0});
    EXPECT_THAT(log.GetMessages(),
                ElementsAre("4 Access: pid 1: merge of 'Audio' is refused",
                            "4 Access: pid 6: merge of 'Audio' is refused",
                            "4 Access: pid 7: merge of 'Audio' is refused, as were 4 more since the last warning"));
}

TEST(RefusalLogTest, VeryManyClientsShareOneWarningAMinute)
{
    const LogCapture log;
    RefusalLog refusals;
    for (int number = 0; number < 5'000; ++number)
    {
        const std::string client = "client " + std::to_string(number);
        refusals.Add(client, client, "merge", {"A"}, {100, 0});
    }
    ASSERT_THAT(log.GetMessages(), SizeIs(RefusalLog::MostEntries + 1));
    EXPECT_EQ(log.GetMessages().back(), "4 Access: other clients: merge of other groups is refused");

    refusals.Add("late", "late", "merge", {"A"}, {160, 0});
    EXPECT_EQ(log.GetMessages().back(), "4 Access: late: merge of 'A' is refused") << "those whose minute is over go";
}

TEST(RefusalLogTest, ClientsAreRefusedOnSeveralThreadsAtOnce)
{
    const LogCapture log;
    RefusalLog refusals;
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 4; ++thread)
    {
        threads.emplace_back([&] {
            for (int number = 0; number < 50; ++number)
            {
                refusals.Add("x", "x", "merge", {"G" + std::to_string(number)}, {100, 0});
            }
        });
    }
    for (std::thread& thread : threads)
    {
        thread.join();
    }
    EXPECT_THAT(log.GetMessages(), SizeIs(50));
}

}  // namespace korlo::daemon
