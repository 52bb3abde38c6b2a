#include "korlo/osa/Mutex.h"

#include <chrono>
#include <future>

#include <gtest/gtest.h>

#include "korlo/osa/Exception.h"
#include "support/LockFaults.h"

namespace korlo::osa
{
namespace
{

using namespace std::chrono_literals;

/// What `function` returns on a thread of its own.
template <typename Function>
auto OnAnotherThread(Function function)
{
    return std::async(std::launch::async, function).get();
}

bool OthersCanLock(Mutex& mutex)
{
    return OnAnotherThread([&mutex] {
        const MutexAutoLock lock(&mutex, 0, false);
        return lock.IsLocked();
    });
}

// The tests that leave a lock held over several calls, which clang cannot follow, go through these.
void Lock(Mutex& mutex, unsigned int timeoutMs = Infinite) KORLO_NO_THREAD_SAFETY_ANALYSIS
{
    mutex.Lock(timeoutMs);
}

bool TryLock(Mutex& mutex, unsigned int timeoutMs) KORLO_NO_THREAD_SAFETY_ANALYSIS
{
    return mutex.TryLock(timeoutMs);
}

void Release(Mutex& mutex) KORLO_NO_THREAD_SAFETY_ANALYSIS
{
    mutex.Release();
}

TEST(MutexTest, ExcludesOtherThreadsUntilItIsReleased)
{
    Mutex mutex("door");
    Lock(mutex);
    EXPECT_FALSE(OthersCanLock(mutex));
    Release(mutex);
    EXPECT_TRUE(OthersCanLock(mutex));
}

TEST(MutexTest, MayBeTakenAgainByItsHolderAndIsFreeAfterAsManyReleases)
{
    Mutex mutex(nullptr);
    Lock(mutex);
    Lock(mutex, 0);
    EXPECT_TRUE(TryLock(mutex, 10));
    Release(mutex);
    Release(mutex);
    EXPECT_FALSE(OthersCanLock(mutex));
    Release(mutex);
    EXPECT_TRUE(OthersCanLock(mutex));
}

TEST(MutexTest, LockThrowsWithTheNameOfTheMutexWhenTheTimeIsUp)
{
    Mutex mutex("door");
    Lock(mutex);
    const auto lockIn = [&mutex](unsigned int timeoutMs) {
        return OnAnotherThread([&mutex, timeoutMs] { return CaughtFrom([&] { Lock(mutex, timeoutMs); }); });
    };

    EXPECT_EQ(lockIn(0), Caught("Failed to lock mutex 'door' within 0 ms", LockException::Timeout));
    EXPECT_EQ(lockIn(5), Caught("Failed to lock mutex 'door' within 5 ms", LockException::Timeout));
    Release(mutex);
}

TEST(MutexTest, CallsAMutexWithoutANameUnnamed)
{
    Mutex mutex(nullptr);
    Lock(mutex);
    const Caught caught = OnAnotherThread([&mutex] { return CaughtFrom([&] { Lock(mutex, 0); }); });
    EXPECT_EQ(caught.first, "Failed to lock mutex 'unnamed' within 0 ms");
    Release(mutex);
}

TEST(MutexTest, TryLockWaitsForItsTimeAndThenReturnsFalse)
{
    Mutex mutex("door");
    Lock(mutex);
    const auto waited = OnAnotherThread([&mutex] {
        const auto start = std::chrono::steady_clock::now();
        EXPECT_FALSE(TryLock(mutex, 20));
        return std::chrono::steady_clock::now() - start;
    });
    EXPECT_GE(waited, 20ms);
    Release(mutex);
}

TEST(MutexTest, WaitsUntilTheHolderReleases)
{
    for (const unsigned int timeoutMs : {Infinite, 30000u})
    {
        Mutex mutex("door");
        Lock(mutex);
        auto taken = std::async(std::launch::async, [&mutex, timeoutMs] {
            Lock(mutex, timeoutMs);
            Release(mutex);
        });
        EXPECT_EQ(taken.wait_for(10ms), std::future_status::timeout);
        Release(mutex);
        EXPECT_EQ(taken.wait_for(10s), std::future_status::ready);
    }
}

TEST(MutexTest, RefusesAReleaseByAThreadThatDoesNotHoldIt)
{
    Mutex mutex("door");
    const Caught refused("Mutex 'door' was released by a thread that does not hold it", LockException::NotHeld);
    EXPECT_EQ(CaughtFrom([&] { Release(mutex); }), refused);

    Lock(mutex);
    EXPECT_EQ(OnAnotherThread([&mutex] { return CaughtFrom([&] { Release(mutex); }); }), refused);
    EXPECT_FALSE(OthersCanLock(mutex));
    Release(mutex);
}

TEST(MutexTest, ProtectsWhatItGuards)
{
    struct
    {
        Mutex mutex{"counter"};
        int count KORLO_GUARDED_BY(mutex) = 0;
    } shared;
    const auto count = [&shared] {
        for (int i = 0; i < 10000; ++i)
        {
            const MutexAutoLock lock(&shared.mutex);
            ++shared.count;
        }
    };
    auto other = std::async(std::launch::async, count);
    count();
    other.get();

    const MutexAutoLock lock(&shared.mutex);
    EXPECT_EQ(shared.count, 20000);
}

TEST(MutexAutoLockTest, HoldsTheMutexUntilTheEndOfItsScope)
{
    Mutex mutex("door");
    {
        const MutexAutoLock lock(&mutex);
        EXPECT_TRUE(lock.IsLocked());
        EXPECT_FALSE(OthersCanLock(mutex));
    }
    EXPECT_TRUE(OthersCanLock(mutex));
}

TEST(MutexAutoLockTest, ThrowsWhenTheMutexCannotBeTakenInTime)
{
    Mutex mutex("door");
    Lock(mutex);
    const Caught caught =
        OnAnotherThread([&mutex] { return CaughtFrom([&] { const MutexAutoLock lock(&mutex, 0, true); }); });
    EXPECT_EQ(caught, Caught("Failed to lock mutex 'door' within 0 ms", LockException::Timeout));
    Release(mutex);
}

TEST(MutexAutoLockTest, GoesOnWithoutTheLockWhenToldNotToThrow)
{
    Mutex mutex("door");
    Lock(mutex);
    EXPECT_FALSE(OthersCanLock(mutex));  // which asks in this very way
    Release(mutex);
    EXPECT_TRUE(OthersCanLock(mutex));
    EXPECT_TRUE(TryLock(mutex, 0));  // the guard that had the lock released it, the other one released nothing
    Release(mutex);
}

TEST(MutexAutoLockTest, RefusesAMutexThatIsNull)
{
    try
    {
        const MutexAutoLock lock(nullptr);
        FAIL() << "nothing was thrown";
    }
    catch (const Exception& exception)
    {
        EXPECT_STREQ(exception.what(), "Mutex was NULL");
    }
}

}  // namespace

}  // namespace korlo::osa
