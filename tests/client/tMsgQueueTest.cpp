#include "client/tMsgQueue.h"

#include <future>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace korlo::osa
{
namespace
{

using namespace std::chrono_literals;

TEST(tMsgQueueTest, ANewQueueIsEmpty)
{
    tMsgQueue<int> queue("test", 1);
    EXPECT_EQ(queue.Size(), 0u);
}

TEST(tMsgQueueTest, SizeFollowsSendingAndReceiving)
{
    tMsgQueue<int> queue("test", 1);
    queue.SendMsg(7);
    EXPECT_EQ(queue.Size(), 1u);
    int item = 0;
    EXPECT_TRUE(queue.GetMsg(item, 0));
    EXPECT_EQ(item, 7);
    EXPECT_EQ(queue.Size(), 0u);
}

TEST(tMsgQueueTest, ItemsAreReceivedInTheOrderInWhichTheyWereSent)
{
    tMsgQueue<int> queue("test", 3);
    for (const int item : {3, 1, 2})
    {
        queue.SendMsg(item);
    }
    for (const int expected : {3, 1, 2})
    {
        int item = 0;
        EXPECT_TRUE(queue.TryGetMsg(item, 0));
        EXPECT_EQ(item, expected);
    }
}

TEST(tMsgQueueTest, AFullQueueRefusesAnItemAndKeepsWhatItHolds)
{
    tMsgQueue<int> queue("test", 1);
    queue.SendMsg(1);
    try
    {
        queue.SendMsg(2);
        FAIL() << "the queue took more than it holds";
    }
    catch (const Exception& exception)
    {
        EXPECT_STREQ(exception.what(), "Message Queue Is Full");
    }
    int item = 0;
    EXPECT_EQ(queue.Size(), 1u);
    EXPECT_TRUE(queue.TryGetMsg(item, 0));
    EXPECT_EQ(item, 1);
}

TEST(tMsgQueueTest, AQueueThatRefusedAnItemWorksOn)
{
    tMsgQueue<int> queue("test", 1);
    queue.SendMsg(1);
    EXPECT_THROW(queue.SendMsg(2), Exception);
    int item = 0;
    EXPECT_TRUE(queue.TryGetMsg(item, 0));
    EXPECT_FALSE(queue.TryGetMsg(item, 0));
    queue.SendMsg(3);
    EXPECT_TRUE(queue.TryGetMsg(item, 0));
    EXPECT_EQ(item, 3);
}

TEST(tMsgQueueTest, TryGetMsgOnAnEmptyQueueReturnsFalseAndLeavesTheItemAlone)
{
    tMsgQueue<int> queue("test", 1);
    int item = 42;
    EXPECT_FALSE(queue.TryGetMsg(item, 0));
    EXPECT_FALSE(queue.TryGetMsg(item, 1));
    EXPECT_EQ(item, 42);
}

TEST(tMsgQueueTest, GetMsgThrowsWhenTheTimeIsUp)
{
    tMsgQueue<int> queue("test", 1);
    int item = 42;
    try
    {
        queue.GetMsg(item, 1);
        FAIL() << "nothing was sent";
    }
    catch (const LockException& exception)
    {
        EXPECT_STREQ(exception.what(), "Lock Timeout");
        EXPECT_EQ(exception.GetLockError(), 1);
    }
    EXPECT_EQ(item, 42);
}

TEST(tMsgQueueTest, AReceiverThatWaitsIsWokenAndBlocksNoSender)
{
    tMsgQueue<int> queue("test", 1);
    auto received = std::async(std::launch::async, [&queue] {
        int item = 0;
        queue.GetMsg(item, Infinite);
        return item;
    });
    EXPECT_EQ(received.wait_for(5ms), std::future_status::timeout);
    queue.SendMsg(9);
    ASSERT_EQ(received.wait_for(10s), std::future_status::ready);
    EXPECT_EQ(received.get(), 9);
}

TEST(tMsgQueueTest, DestroyingAQueueFreesNothingThatItsItemsPointTo)
{
    int value = 5;
    {
        tMsgQueue<int*> queue("test", 1);
        queue.SendMsg(&value);
    }
    EXPECT_EQ(value, 5);
}

TEST(tMsgQueueTest, ManyThreadsLoseNoItem)
{
    constexpr int senders = 4;
    constexpr int itemsEach = 500;
    tMsgQueue<int> queue("test", senders * itemsEach);
    std::vector<std::thread> threads;
    for (int sender = 0; sender < senders; ++sender)
    {
        threads.emplace_back([&queue] {
            for (int item = 1; item <= itemsEach; ++item)
            {
                queue.SendMsg(item);
            }
        });
    }
    int sum = 0;
    for (int count = 0; count < senders * itemsEach; ++count)
    {
        int item = 0;
        queue.GetMsg(item, Infinite);
        sum += item;
    }
    for (std::thread& thread : threads)
    {
        thread.join();
    }
    EXPECT_EQ(sum, senders * itemsEach * (itemsEach + 1) / 2);
    EXPECT_EQ(queue.Size(), 0u);
}

}  // namespace
}  // namespace korlo::osa
