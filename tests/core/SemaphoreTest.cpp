#include "korlo/osa/Semaphore.h"

#include <chrono>
#include <future>
#include <memory>

#include <gtest/gtest.h>

#include "korlo/osa/Exception.h"
#include "korlo/osa/Mutex.h"

namespace korlo::osa
{
namespace
{

using namespace std::chrono_literals;

TEST(SemaphoreTest, StartsAtItsInitialCount)
{
    Semaphore semaphore("permits", 3, 2);
    EXPECT_TRUE(semaphore.TryLock(0));
    EXPECT_TRUE(semaphore.Lock(0));
    EXPECT_FALSE(semaphore.TryLock(0));
}

TEST(SemaphoreTest, WithTheArgumentsOneAndZeroStartsTaken)
{
    Semaphore semaphore("sendMutex", 1, 0);
    EXPECT_FALSE(semaphore.TryLock(0));
    semaphore.Release();
    EXPECT_TRUE(semaphore.TryLock(0));
}

TEST(SemaphoreTest, CannotStartBeyondItsMaximum)
{
    try
    {
        const Semaphore semaphore("permits", 1, 2);
        FAIL() << "nothing was thrown";
    }
    catch (const Exception& exception)
    {
        EXPECT_STREQ(exception.what(), "Semaphore 'permits' cannot start at 2, its maximum is 1");
    }
}

TEST(SemaphoreTest, AReleaseBeyondTheMaximumThrowsAndChangesNothing)
{
    Semaphore semaphore("permits", 2, 2);
    try
    {
        semaphore.Release();
        FAIL() << "nothing was thrown";
    }
    catch (const LockException&)
    {
        FAIL() << "this is no matter of time";
    }
    catch (const Exception& exception)
    {
        EXPECT_STREQ(exception.what(), "Semaphore 'permits' released beyond its maximum of 2");
    }
    EXPECT_TRUE(semaphore.TryLock(0));
    EXPECT_TRUE(semaphore.TryLock(0));
    EXPECT_FALSE(semaphore.TryLock(0));
}

TEST(SemaphoreTest, LockThrowsWithItsNameWhenTheTimeIsUp)
{
    Semaphore semaphore("sendMutex", 1, 0);
    for (const unsigned int timeoutMs : {0u, 10u})
    {
        const auto start = std::chrono::steady_clock::now();
        try
        {
            semaphore.Lock(timeoutMs);
            FAIL() << "nothing was thrown";
        }
        catch (const LockException& exception)
        {
            EXPECT_EQ(exception.what(),
                      "Failed to lock semaphore 'sendMutex' within " + std::to_string(timeoutMs) + " ms");
            EXPECT_EQ(exception.GetLockError(), LockException::Timeout);
        }
        EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(timeoutMs));
    }
}

TEST(SemaphoreTest, TryLockWaitsForItsTimeAndThenReturnsFalse)
{
    Semaphore semaphore("permits", 1, 0);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(semaphore.TryLock(20));
    EXPECT_GE(std::chrono::steady_clock::now() - start, 20ms);
}

TEST(SemaphoreTest, WhatOneThreadReleasesAnotherTakes)
{
    for (const unsigned int timeoutMs : {Infinite, 30000u})
    {
        Semaphore semaphore("permits", 1, 0);
        auto taken = std::async(std::launch::async, [&] { return semaphore.Lock(timeoutMs); });
        EXPECT_EQ(taken.wait_for(5ms), std::future_status::timeout);
        semaphore.Release();
        ASSERT_EQ(taken.wait_for(10s), std::future_status::ready);
        EXPECT_TRUE(taken.get());
    }
}

TEST(SemaphoreTest, EveryReleaseWakesOneWaiter)
{
    Semaphore there("there", 1, 0);
    Semaphore back("back", 1, 0);
    int turns = 0;  // handed to and fro with the semaphores
    auto other = std::async(std::launch::async, [&] {
        for (int i = 0; i < 2000; ++i)
        {
            there.Lock(Infinite);
            ++turns;
            back.Release();
        }
    });
    for (int i = 0; i < 2000; ++i)
    {
        there.Release();
        back.Lock(Infinite);
        ++turns;
    }
    other.get();
    EXPECT_EQ(turns, 4000);
}

TEST(SemaphoreTest, WhoeverIsWokenMayDestroyIt)
{
    for (int i = 0; i < 1000; ++i)
    {
        auto pSemaphore = std::make_unique<Semaphore>("once", 1, 0);
        auto other = std::async(std::launch::async, [&semaphore = *pSemaphore] { semaphore.Release(); });
        pSemaphore->Lock(Infinite);
        pSemaphore.reset();
        other.get();
    }
}

}  // namespace

}  // namespace korlo::osa
