#include "server/StoreLock.h"

#include <future>

#include <gtest/gtest.h>

#include "korlo/osa/Exception.h"

namespace korlo::settings::server
{
namespace
{

// The tests take and release across scopes, which clang cannot follow.

bool CanRead(osa::ReadWriteLock& lock) KORLO_NO_THREAD_SAFETY_ANALYSIS
{
    return std::async(std::launch::async,
                      [&lock]() KORLO_NO_THREAD_SAFETY_ANALYSIS {
                          try
                          {
                              lock.ReadLock(0);
                              lock.Release();
                              return true;
                          }
                          catch (const osa::LockException&)
                          {
                              return false;
                          }
                      })
        .get();
}

bool CanWrite(osa::ReadWriteLock& lock) KORLO_NO_THREAD_SAFETY_ANALYSIS
{
    return std::async(std::launch::async,
                      [&lock]() KORLO_NO_THREAD_SAFETY_ANALYSIS {
                          try
                          {
                              lock.WriteLock(0);
                              lock.Release();
                              return true;
                          }
                          catch (const osa::LockException&)
                          {
                              return false;
                          }
                      })
        .get();
}

TEST(StoreLockTest, AReadLockSharesToTheEndOfTheScope)
{
    osa::ReadWriteLock lock("test");
    {
        const StoreReadLock held(lock);
        EXPECT_TRUE(CanRead(lock));
        EXPECT_FALSE(CanWrite(lock));
    }
    EXPECT_TRUE(CanWrite(lock));
}

TEST(StoreLockTest, AWriteLockExcludesToTheEndOfTheScope)
{
    osa::ReadWriteLock lock("test");
    {
        const StoreWriteLock held(lock);
        EXPECT_FALSE(CanRead(lock));
    }
    EXPECT_TRUE(CanWrite(lock));
}

TEST(StoreLockTest, AnAdoptedHoldEndsWithTheScope)
{
    osa::ReadWriteLock lock("test");
    const auto take = [&lock]() KORLO_NO_THREAD_SAFETY_ANALYSIS { lock.WriteLock(osa::Infinite); };
    const auto adopt = [&lock]() KORLO_NO_THREAD_SAFETY_ANALYSIS {
        const StoreWriteLock held(lock, StoreWriteLock::AdoptTag());
        EXPECT_FALSE(CanRead(lock));
    };
    take();
    adopt();
    EXPECT_TRUE(CanWrite(lock));
}

TEST(StoreLockTest, WhatTheReleaseThrowsIsSwallowed)
{
    osa::ReadWriteLock lock("test");
    const auto releaseTwice = [&lock]() KORLO_NO_THREAD_SAFETY_ANALYSIS {
        const StoreWriteLock held(lock);
        lock.Release();
    };
    EXPECT_NO_THROW(releaseTwice());
    EXPECT_TRUE(CanWrite(lock));
}

}  // namespace
}  // namespace korlo::settings::server
