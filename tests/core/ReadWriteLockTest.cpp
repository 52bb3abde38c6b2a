#include "korlo/osa/ReadWriteLock.h"

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "korlo/osa/Exception.h"
#include "korlo/osa/Mutex.h"
#include "support/LockFaults.h"

namespace korlo::osa
{
namespace
{

using namespace std::chrono_literals;

// The tests hold the lock over several calls and on several threads, which clang cannot follow.
void Read(ReadWriteLock& lock, unsigned int timeoutMs = Infinite) KORLO_NO_THREAD_SAFETY_ANALYSIS
{
    lock.ReadLock(timeoutMs);
}

void Write(ReadWriteLock& lock, unsigned int timeoutMs = Infinite) KORLO_NO_THREAD_SAFETY_ANALYSIS
{
    lock.WriteLock(timeoutMs);
}

void Release(ReadWriteLock& lock) KORLO_NO_THREAD_SAFETY_ANALYSIS
{
    lock.Release();
}

bool CanRead(ReadWriteLock& lock)
{
    if (!CaughtFrom([&] { Read(lock, 0); }).first.empty())
    {
        return false;
    }
    Release(lock);
    return true;
}

bool CanWrite(ReadWriteLock& lock)
{
    if (!CaughtFrom([&] { Write(lock, 0); }).first.empty())
    {
        return false;
    }
    Release(lock);
    return true;
}

/// While the lock is held for reading: returns once a writer waits for it, which keeps new readers out.
void AwaitWaitingWriter(ReadWriteLock& lock)
{
    while (CanRead(lock))
    {
        std::this_thread::yield();
    }
}

TEST(ReadWriteLockTest, IsSharedByReadersAndClosedToWriters)
{
    ReadWriteLock lock("SettingsMutex");
    Read(lock);
    Read(lock);
    EXPECT_TRUE(CanRead(lock));
    EXPECT_FALSE(CanWrite(lock));
    Release(lock);
    EXPECT_FALSE(CanWrite(lock));
    Release(lock);
    EXPECT_TRUE(CanWrite(lock));
}

TEST(ReadWriteLockTest, IsClosedToEverybodyWhileHeldForWriting)
{
    ReadWriteLock lock("SettingsMutex");
    Write(lock);
    EXPECT_FALSE(CanRead(lock));
    EXPECT_FALSE(CanWrite(lock));
    Release(lock);
    EXPECT_TRUE(CanRead(lock));
    EXPECT_TRUE(CanWrite(lock));
}

TEST(ReadWriteLockTest, ThrowsWithItsNameWhenTheTimeIsUp)
{
    ReadWriteLock lock("SettingsMutex");
    Write(lock);
    for (const unsigned int timeoutMs : {0u, 5u})
    {
        const std::string end = " 'SettingsMutex' within " + std::to_string(timeoutMs) + " ms";
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(CaughtFrom([&] { Read(lock, timeoutMs); }),
                  Caught("Failed to lock read/write lock for reading" + end, LockException::Timeout));
        EXPECT_EQ(CaughtFrom([&] { Write(lock, timeoutMs); }),
                  Caught("Failed to lock read/write lock for writing" + end, LockException::Timeout));
        EXPECT_GE(std::chrono::steady_clock::now() - start, 2 * std::chrono::milliseconds(timeoutMs));
    }
    Release(lock);
    EXPECT_TRUE(CanWrite(lock));
}

TEST(ReadWriteLockTest, WaitersGoOnWhenTheLockIsReleased)
{
    for (const unsigned int timeoutMs : {Infinite, 30000u})
    {
        ReadWriteLock lock(nullptr);
        Write(lock);
        auto reader = std::async(std::launch::async, [&] {
            Read(lock, timeoutMs);
            Release(lock);
        });
        auto writer = std::async(std::launch::async, [&] {
            Write(lock, timeoutMs);
            Release(lock);
        });
        EXPECT_EQ(reader.wait_for(5ms), std::future_status::timeout);
        EXPECT_EQ(writer.wait_for(5ms), std::future_status::timeout);
        Release(lock);
        EXPECT_EQ(reader.wait_for(10s), std::future_status::ready);
        EXPECT_EQ(writer.wait_for(10s), std::future_status::ready);
        EXPECT_TRUE(CanWrite(lock));
    }
}

TEST(ReadWriteLockTest, AHoldMayBeReleasedByAnotherThread)
{
    ReadWriteLock lock("SettingsMutex");
    for (auto* take : {&Read, &Write})
    {
        std::async(std::launch::async, [&] { take(lock, Infinite); }).get();
        EXPECT_FALSE(CanWrite(lock));
        Release(lock);
        EXPECT_TRUE(CanWrite(lock));
    }
}

TEST(ReadWriteLockTest, RefusesAReleaseThatNobodyIsHoldingFor)
{
    ReadWriteLock lock("SettingsMutex");
    const Caught refused("Read/write lock 'SettingsMutex' was released while nobody held it", LockException::NotHeld);
    EXPECT_EQ(CaughtFrom([&] { Release(lock); }), refused);
    Read(lock);
    Release(lock);
    EXPECT_EQ(CaughtFrom([&] { Release(lock); }), refused);
    EXPECT_TRUE(CanWrite(lock));
}

TEST(ReadWriteLockTest, ReadersThatComeLaterDoNotOvertakeAWaitingWriter)
{
    ReadWriteLock lock("SettingsMutex");
    Read(lock);
    auto writer = std::async(std::launch::async, [&] { Write(lock); });
    AwaitWaitingWriter(lock);

    auto reader = std::async(std::launch::async, [&] { Read(lock); });
    EXPECT_EQ(reader.wait_for(5ms), std::future_status::timeout);
    Release(lock);
    EXPECT_EQ(writer.wait_for(10s), std::future_status::ready);
    EXPECT_EQ(reader.wait_for(5ms), std::future_status::timeout);
    Release(lock);
    EXPECT_EQ(reader.wait_for(10s), std::future_status::ready);
    Release(lock);
}

TEST(ReadWriteLockTest, AWriterThatGivesUpLetsTheReadersBehindItIn)
{
    ReadWriteLock lock("SettingsMutex");
    Read(lock);
    auto writer = std::async(std::launch::async, [&] { return CaughtFrom([&] { Write(lock, 50); }).second; });
    auto reader = std::async(std::launch::async, [&] {
        Read(lock);
        Release(lock);
    });
    EXPECT_EQ(writer.get(), LockException::Timeout);
    EXPECT_EQ(reader.wait_for(10s), std::future_status::ready);
    Release(lock);
    EXPECT_TRUE(CanWrite(lock));
}

TEST(ReadWriteLockTest, NeitherReadersNorWritersStarveTheOthers)
{
    ReadWriteLock lock("SettingsMutex");
    for (const bool busyWriters : {false, true})
    {
        std::atomic<bool> stop = false;
        const auto keepBusy = [&] {
            while (!stop)
            {
                busyWriters ? Write(lock) : Read(lock);
                Release(lock);
            }
        };
        std::vector<std::future<void>> busy;
        for (int i = 0; i < 3; ++i)
        {
            busy.push_back(std::async(std::launch::async, keepBusy));
        }
        for (int i = 0; i < 200; ++i)
        {
            EXPECT_NO_THROW(busyWriters ? Read(lock, 20000) : Write(lock, 20000));
            Release(lock);
        }
        stop = true;
    }
    EXPECT_TRUE(CanWrite(lock));
}

TEST(ReadWriteLockTest, WritersSeeAllAndReadersSeeWholeChanges)
{
    ReadWriteLock lock("SettingsMutex");
    int first = 0;
    int second = 0;
    std::atomic<int> broken = 0;
    const auto write = [&] {
        for (int i = 0; i < 5000; ++i)
        {
            Write(lock);
            ++first;
            ++second;
            Release(lock);
        }
    };
    const auto read = [&] {
        for (int i = 0; i < 5000; ++i)
        {
            Read(lock);
            broken += first == second ? 0 : 1;
            Release(lock);
        }
    };
    const auto tryBriefly = [&] {
        for (int i = 0; i < 500; ++i)
        {
            if (CaughtFrom([&] { i % 2 == 0 ? Read(lock, 1) : Write(lock, 0); }).first.empty())
            {
                broken += first == second ? 0 : 1;
                Release(lock);
            }
        }
    };
    {
        std::vector<std::future<void>> threads;
        for (const std::function<void()>& work : {std::function<void()>(write), std::function<void()>(write),
                                                  std::function<void()>(read), std::function<void()>(tryBriefly)})
        {
            threads.push_back(std::async(std::launch::async, work));
        }
        read();
    }
    EXPECT_EQ(broken, 0);
    EXPECT_EQ(first, 10000);
    EXPECT_EQ(second, 10000);
    EXPECT_TRUE(CanWrite(lock));
}

}  // namespace

}  // namespace korlo::osa
