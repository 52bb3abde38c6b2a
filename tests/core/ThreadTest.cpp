#include "korlo/osa/Thread.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <functional>
#include <future>
#include <memory>
#include <sstream>
#include <stdexcept>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/resource.h>

#include "korlo/core/Logger.h"
#include "korlo/osa/Exception.h"
#include "korlo/osa/Mutex.h"
#include "support/Files.h"
#include "support/LogCapture.h"

namespace korlo::osa
{
namespace
{

using namespace std::chrono_literals;
using testing::ElementsAre;

constexpr unsigned int StackBytes = 32768;

/// Runs a function as a thread's body.
class Body : public Runnable
{
public:
    explicit Body(std::function<void()> function) : _function(std::move(function)) {}

    void Run() override { _function(); }

private:
    const std::function<void()> _function;
};

/// The text of the Exception that `function` throws.
std::string NameOfThisThread()
{
    std::array<char, 16> name{};
    pthread_getname_np(pthread_self(), name.data(), name.size());
    return name.data();
}

TEST(RunnableTest, DoesNothingByItself)
{
    Runnable runnable;
    EXPECT_NO_THROW(runnable.Run());
    EXPECT_NO_THROW(runnable.Stop());
}

TEST(ThreadTest, RunsItsBodyOnAThreadOfThatName)
{
    std::thread::id id;
    std::string name;
    Body body([&] {
        id = std::this_thread::get_id();
        name = NameOfThisThread();
    });
    Thread thread("KorloSettings", &body, StackBytes, 0);
    EXPECT_EQ(id, std::thread::id());
    thread.Run();
    thread.Join();
    EXPECT_NE(id, std::thread::id());
    EXPECT_NE(id, std::this_thread::get_id());
    EXPECT_EQ(name, "KorloSettings");
}

TEST(ThreadTest, KeepsTheFirstFifteenBytesOfALongName)
{
    std::string name;
    Body body([&] { name = NameOfThisThread(); });
    Thread thread("AVeryLongThreadName", &body, StackBytes, 0);
    thread.Run();
    thread.Join();
    EXPECT_EQ(name, "AVeryLongThread");
}

TEST(ThreadTest, NeedsNoName)
{
    bool ran = false;
    Body body([&] { ran = true; });
    Thread thread(nullptr, &body, StackBytes, 0);
    thread.Run();
    thread.Join();
    EXPECT_TRUE(ran);
}

TEST(ThreadTest, NeedsABody)
{
    EXPECT_EQ(MessageOf([] { const Thread thread("T", nullptr, StackBytes, 0); }), "Runnable was NULL");
}

TEST(ThreadTest, TakesPriorityAsStepsOfNiceness)
{
    const int usual = getpriority(PRIO_PROCESS, 0);
    for (const auto priority : {static_cast<signed char>(0), static_cast<signed char>(-3)})
    {
        int niceness = 0;
        Body body([&] { niceness = getpriority(PRIO_PROCESS, 0); });
        Thread thread("Nice", &body, StackBytes, priority);
        thread.Run();
        thread.Join();
        EXPECT_EQ(niceness, std::min(usual - priority, 19));
    }
    EXPECT_EQ(getpriority(PRIO_PROCESS, 0), usual);
}

TEST(ThreadTest, JoinMayBeRepeatedAndMayComeBeforeTheStart)
{
    int runs = 0;
    Body body([&] { ++runs; });
    Thread thread("T", &body, StackBytes, 0);
    thread.Join();
    thread.Run();
    thread.Join();
    thread.Join();
    EXPECT_EQ(runs, 1);
}

TEST(ThreadTest, MayBeJoinedByTwoThreadsAtOnce)
{
    std::promise<void> go;
    Body body([&] { go.get_future().wait(); });
    Thread thread("T", &body, StackBytes, 0);
    thread.Run();
    auto first = std::async(std::launch::async, [&] { thread.Join(); });
    auto second = std::async(std::launch::async, [&] { thread.Join(); });
    EXPECT_EQ(first.wait_for(5ms), std::future_status::timeout);
    EXPECT_EQ(second.wait_for(5ms), std::future_status::timeout);
    go.set_value();
    EXPECT_EQ(first.wait_for(10s), std::future_status::ready);
    EXPECT_EQ(second.wait_for(10s), std::future_status::ready);
}

TEST(ThreadTest, MayBeStartedAgainOnceItWasJoinedButNotBefore)
{
    int runs = 0;
    Body body([&] { ++runs; });
    Thread thread("Again", &body, StackBytes, 0);
    thread.Run();
    EXPECT_EQ(MessageOf([&] { thread.Run(); }), "Thread 'Again' was started already");
    thread.Join();
    thread.Run();
    thread.Join();
    EXPECT_EQ(runs, 2);
}

TEST(ThreadTest, IsJoinedWhenItIsDestroyed)
{
    bool ended = false;
    std::promise<void> go;
    Body body([&] {
        go.get_future().wait();
        ended = true;
    });
    {
        Thread thread("T", &body, StackBytes, 0);
        thread.Run();
        go.set_value();
    }
    EXPECT_TRUE(ended);
}

TEST(ThreadTest, CannotWaitForItself)
{
    std::string caught;
    std::unique_ptr<Thread> pThread;
    Body body([&] { caught = MessageOf([&] { pThread->Join(); }); });
    pThread = std::make_unique<Thread>("Self", &body, StackBytes, 0);
    pThread->Run();
    pThread->Join();
    EXPECT_EQ(caught, "Thread 'Self' cannot wait for itself");
}

TEST(ThreadTest, MayDestroyItsOwnObjectAndThenEndsByItself)
{
    std::promise<void> created;
    std::promise<void> ended;
    std::unique_ptr<Thread> pThread;
    Body body([&] {
        created.get_future().wait();
        pThread.reset();
        ended.set_value();
    });
    pThread = std::make_unique<Thread>("Self", &body, StackBytes, 0);
    pThread->Run();
    created.set_value();
    EXPECT_EQ(ended.get_future().wait_for(10s), std::future_status::ready);
}

TEST(ThreadTest, AStandardExceptionEndsTheThreadWithAnErrorAndNotTheProcess)
{
    LogCapture log;
    Body body([] { throw std::runtime_error("out of paper"); });
    Thread thread("Printer", &body, StackBytes, 0);
    thread.Run();
    thread.Join();
    EXPECT_THAT(log.GetMessages(), ElementsAre("3 Thread: Thread 'Printer' ended by an exception: out of paper"));
}

/// Touches so many bytes of stack that the compiler cannot leave them out.
void UseStack()
{
    std::array<volatile char, StackBytes - 512> bytes;
    for (volatile char& byte : bytes)
    {
        byte = 1;
    }
}

TEST(ThreadTest, LeavesTheWholeStackToTheBody)
{
    Body body(&UseStack);
    Thread thread("Stack", &body, StackBytes, 0);
    thread.Run();
    thread.Join();
}

TEST(ThreadTest, ASmallStackIsEnoughToFormatLogThrowAndParse)
{
    LogCapture log;
    std::string text;
    double parsed = 0;
    Body body([&] {
        try
        {
            throw Exception("%.40f %s %300d", 3.25, "units", 7);
        }
        catch (const Exception& exception)
        {
            text = exception.what();
        }
        core::Logger::GetLogger("Small")->Error("%g %s", 1.5, text.c_str());
        std::istringstream(text) >> parsed;
    });
    Thread thread("Small", &body, StackBytes, 0);
    thread.Run();
    thread.Join();
    EXPECT_EQ(text.size(), 349u);
    EXPECT_EQ(parsed, 3.25);
    EXPECT_THAT(log.GetMessages(), ElementsAre("3 Small: 1.5 " + text));
}

TEST(ThreadTest, EvenTheSmallestStackRuns)
{
    bool ran = false;
    Body body([&] { ran = true; });
    Thread thread("Tiny", &body, 0, 0);
    thread.Run();
    thread.Join();
    EXPECT_TRUE(ran);
}

TEST(ThreadTest, SleepsAtLeastForItsTime)
{
    const auto start = std::chrono::steady_clock::now();
    Thread::CurrentThread::Sleep(0);
    Thread::CurrentThread::Sleep(15);
    EXPECT_GE(std::chrono::steady_clock::now() - start, 15ms);
}

}  // namespace

}  // namespace korlo::osa
