#include "korlo/core/Logger.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <functional>
#include <future>
#include <regex>
#include <stdexcept>
#include <thread>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "korlo/osa/Thread.h"
#include "support/DescriptorCapture.h"
#include "support/LogCapture.h"

namespace korlo::core
{
namespace
{

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

/// A logger that no other test has, with the threshold that loggers start with.
Logger& FreshLogger()
{
    static int counter = 0;
    return *Logger::GetLogger("Fresh" + std::to_string(++counter));
}

/// An appender that does what it is told.
///
/// Thread safety: as ILogAppender.
class ActingAppender : public ILogAppender
{
public:
    explicit ActingAppender(std::function<void(const std::string&)> act) : _act(std::move(act)) {}

    void Append(const Logger&, LogLevel, const std::string& message) override { _act(message); }

private:
    const std::function<void(const std::string&)> _act;
};

__attribute__((format(printf, 3, 4))) void LogDirectly(const Logger& logger, LogLevel level, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    logger.LogMessageV(level, format, args);
    va_end(args);
}

/// A thread's body that logs texts short and long.
///
/// Thread safety: none of its own; the thread uses it.
class LoggingBody : public osa::Runnable
{
public:
    explicit LoggingBody(const Logger& logger) : _logger(logger) {}

    void Run() override
    {
        _logger.Warning("%s %d %f", "short", 1, 2.5);
        _logger.Warning("%s", std::string(20000, 'x').c_str());
    }

private:
    const Logger& _logger;
};

}  // namespace

TEST(LoggerTest, OneNameIsOneLogger)
{
    Logger* const pLogger = Logger::GetLogger("LoggerTest");
    ASSERT_NE(pLogger, nullptr);
    EXPECT_EQ(pLogger->GetName(), "LoggerTest");
    EXPECT_EQ(Logger::GetLogger("LoggerTest"), pLogger);
    EXPECT_NE(Logger::GetLogger("LoggerTest2"), pLogger);
}

TEST(LoggerTest, ThreadsThatAskForOneNameGetOneLogger)
{
    std::vector<std::future<Logger*>> loggers;
    for (int i = 0; i < 8; ++i)
    {
        loggers.push_back(std::async(std::launch::async, [] { return Logger::GetLogger("LoggerTest/Contended"); }));
    }
    for (std::future<Logger*>& logger : loggers)
    {
        EXPECT_EQ(logger.get(), Logger::GetLogger("LoggerTest/Contended"));
    }
}

TEST(LoggerTest, EachWrapperPassesItsLevel)
{
    const LogCapture log;
    Logger& logger = *Logger::GetLogger("Levels");
    logger.SetThreshold(LogLevelTrace);

    logger.Error("e%d", 1);
    logger.Warning("w%s", "2");
    logger.Information("i%c", '3');
    logger.Trace("t%%");

    EXPECT_THAT(log.GetMessages(), ElementsAre("3 Levels: e1", "4 Levels: w2", "6 Levels: i3", "8 Levels: t%"));
}

TEST(LoggerTest, EmitsWhatTheThresholdReaches)
{
    const struct
    {
        int threshold;
        std::vector<std::string> messages;
    } rows[] = {
        {0, {}},
        {2, {}},
        {3, {"3 Threshold: e"}},
        {4, {"3 Threshold: e", "4 Threshold: w"}},
        {5, {"3 Threshold: e", "4 Threshold: w"}},
        {6, {"3 Threshold: e", "4 Threshold: w", "6 Threshold: i"}},
        {7, {"3 Threshold: e", "4 Threshold: w", "6 Threshold: i"}},
        {8, {"3 Threshold: e", "4 Threshold: w", "6 Threshold: i", "8 Threshold: t"}},
    };
    for (const auto& row : rows)
    {
        SCOPED_TRACE(row.threshold);
        const LogCapture log;
        Logger& logger = *Logger::GetLogger("Threshold");
        logger.SetThreshold(row.threshold);
        EXPECT_EQ(logger.GetThreshold(), row.threshold);

        logger.Error("e");
        logger.Warning("w");
        logger.Information("i");
        logger.Trace("t");

        EXPECT_EQ(log.GetMessages(), row.messages);
    }
}

TEST(LoggerTest, WhatIsNotEmittedIsNotFormatted)
{
    const LogCapture log;
    Logger& logger = FreshLogger();
    logger.SetThreshold(LogLevelWarning);
    const auto* const pNowhere = reinterpret_cast<const char*>(std::uintptr_t{1});  // formatting it would crash

    logger.Information("%s", pNowhere);
    logger.Trace("%s", pNowhere);

    EXPECT_THAT(log.GetMessages(), IsEmpty());
}

TEST(LoggerTest, AMessagePassedDirectlyIsEmittedWhateverTheThreshold)
{
    const LogCapture log;
    Logger& logger = *Logger::GetLogger("Direct");
    logger.SetThreshold(0);

    LogDirectly(logger, LogLevelTrace, "%s", "text");

    EXPECT_THAT(log.GetMessages(), ElementsAre("8 Direct: text"));
}

TEST(LoggerTest, LoggingKeepsErrno)
{
    const LoggingReset reset;
    Logger::AddAppender(std::make_shared<ActingAppender>([](const std::string&) { errno = EBADF; }));
    DescriptorCapture capture(STDERR_FILENO);
    errno = ENOENT;

    FreshLogger().Error("failed");

    EXPECT_EQ(errno, ENOENT);
}

TEST(LoggerTest, UntilConfiguredErrorsAndWarningsGoToStandardError)
{
    DescriptorCapture capture(STDERR_FILENO);
    Logger& logger = FreshLogger();

    logger.Error("lost");
    logger.Warning("recovered");
    logger.Information("changed");
    logger.Trace("passed");

    EXPECT_THAT(capture.GetWrites(), ElementsAre(HasSubstr("] Error " + logger.GetName() + ": lost\n"),
                                                 HasSubstr("] Warning " + logger.GetName() + ": recovered\n")));
}

TEST(LoggerTest, ALineTellsTimeProgramProcessLevelAndLogger)
{
    DescriptorCapture capture(STDERR_FILENO);

    Logger::GetLogger("Printer")->Warning("Tray %u is almost empty", 2u);

    const std::regex line("\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d\\.\\d{3}Z " +
                          std::string(program_invocation_short_name) + "\\[" + std::to_string(::getpid()) +
                          "\\] Warning Printer: Tray 2 is almost empty\n");
    const std::vector<std::string> writes = capture.GetWrites();
    ASSERT_THAT(writes, SizeIs(1));
    EXPECT_TRUE(std::regex_match(writes[0], line)) << writes[0];
}

TEST(LoggerTest, AValueCannotForgeALine)
{
    DescriptorCapture capture(STDERR_FILENO);
    Logger& logger = *Logger::GetLogger("Forged\nname");

    logger.Warning("a\nb\r\tc\x1b[2J\x7f d\\e \xc3\xa4%c.", '\0');

    const std::vector<std::string> writes = capture.GetWrites();
    ASSERT_THAT(writes, SizeIs(1));
    EXPECT_THAT(writes[0], HasSubstr("Warning Forged\\nname: a\\nb\\r\\tc\\x1b[2J\\x7f d\\e \xc3\xa4\\x00.\n"));
}

TEST(LoggerTest, EveryLineLeavesInOneCallWhateverTheThreads)
{
    constexpr int threads = 4;
    constexpr int messages = 200;
    DescriptorCapture capture(STDERR_FILENO);
    const Logger& logger = FreshLogger();
    const std::string filler(100, '.');

    std::vector<std::future<void>> done;
    for (int thread = 0; thread < threads; ++thread)
    {
        done.push_back(std::async(std::launch::async, [&logger, &filler, thread] {
            for (int i = 0; i < messages; ++i)
            {
                logger.Warning("<%d/%d%s>", thread, i, filler.c_str());
            }
        }));
    }
    std::vector<std::string> writes;
    while (writes.size() < threads * messages)
    {
        for (std::string& text : capture.GetWrites())
        {
            writes.push_back(std::move(text));
        }
        std::this_thread::yield();
    }

    for (const std::string& text : writes)
    {
        ASSERT_EQ(text.find('\n'), text.size() - 1) << text;
        ASSERT_NE(text.find(": <"), std::string::npos) << text;
        ASSERT_TRUE(text.ends_with(filler + ">\n")) << text;
    }
}

TEST(LoggerTest, AnAddedAppenderStandsBesideStandardError)
{
    const LoggingReset reset;
    const auto pAppender = std::make_shared<RecordingAppender>();
    Logger::AddAppender(pAppender);
    Logger::AddAppender(nullptr);
    DescriptorCapture capture(STDERR_FILENO);

    Logger::GetLogger("Beside")->Warning("both");

    EXPECT_THAT(pAppender->GetMessages(), ElementsAre("4 Beside: both"));
    EXPECT_THAT(capture.GetWrites(), ElementsAre(HasSubstr(": both\n")));
}

TEST(LoggerTest, ClearingRemovesEveryAppender)
{
    const LoggingReset reset;
    const auto pAppender = std::make_shared<RecordingAppender>();
    Logger::AddAppender(pAppender);
    DescriptorCapture capture(STDERR_FILENO);

    Logger::ClearAppenders();
    FreshLogger().Error("into the void");

    EXPECT_THAT(pAppender->GetMessages(), IsEmpty());
    EXPECT_THAT(capture.GetWrites(), IsEmpty());
    EXPECT_EQ(pAppender.use_count(), 1);
}

TEST(LoggerTest, AppendersGetTheMessageAsItWasFormatted)
{
    const LogCapture log;
    Logger::GetLogger("Raw")->Warning("a\nb");
    EXPECT_THAT(log.GetMessages(), ElementsAre("4 Raw: a\nb"));
}

TEST(LoggerTest, AnAppenderThatLogsIsHeardByTheOthersButNotByItself)
{
    const LogCapture log;
    const Logger& logger = *Logger::GetLogger("Outer");
    const Logger& inner = *Logger::GetLogger("Inner");
    Logger::AddAppender(
        std::make_shared<ActingAppender>([&](const std::string& message) { inner.Error("saw %s", message.c_str()); }));

    logger.Warning("one");
    logger.Warning("two");

    EXPECT_THAT(log.GetMessages(), ElementsAre("4 Outer: one", "3 Inner: saw one", "4 Outer: two", "3 Inner: saw two"));
}

TEST(LoggerTest, TwoAppendersThatLogDoNotChaseEachOther)
{
    const LoggingReset reset;
    Logger::ClearAppenders();
    const Logger& logger = FreshLogger();
    int calls = 0;
    for (int i = 0; i < 2; ++i)
    {
        Logger::AddAppender(std::make_shared<ActingAppender>([&](const std::string&) {
            ++calls;
            logger.Error("again");
        }));
    }

    logger.Error("once");

    EXPECT_EQ(calls, 4);
}

TEST(LoggerTest, AnAppenderMayChangeTheAppenders)
{
    const LogCapture log;
    const auto pLate = std::make_shared<RecordingAppender>();
    const Logger& logger = *Logger::GetLogger("Changing");
    Logger::AddAppender(std::make_shared<ActingAppender>([&](const std::string&) {
        Logger::ClearAppenders();
        Logger::AddAppender(pLate);
    }));

    logger.Warning("first");
    logger.Warning("second");

    EXPECT_THAT(log.GetMessages(), ElementsAre("4 Changing: first"));
    EXPECT_THAT(pLate->GetMessages(), ElementsAre("4 Changing: second"));
}

TEST(LoggerTest, AnAppenderThatThrowsKeepsNothingFromTheOthers)
{
    const LoggingReset reset;
    Logger::ClearAppenders();
    const auto pAfter = std::make_shared<RecordingAppender>();
    Logger::AddAppender(
        std::make_shared<ActingAppender>([](const std::string&) { throw std::runtime_error("no paper"); }));
    Logger::AddAppender(pAfter);

    Logger::GetLogger("Thrown")->Warning("one");
    Logger::GetLogger("Thrown")->Warning("two");

    EXPECT_THAT(pAfter->GetMessages(), ElementsAre("4 Thrown: one", "4 Thrown: two"));
}

TEST(LoggerTest, AppendersAreCalledOneAtATime)
{
    const LoggingReset reset;
    Logger::ClearAppenders();
    const Logger& logger = FreshLogger();
    int inside = 0;  // not atomic: the thread sanitizer sees two calls at once
    int most = 0;
    int calls = 0;
    for (int i = 0; i < 2; ++i)
    {
        Logger::AddAppender(std::make_shared<ActingAppender>([&](const std::string&) {
            most = std::max(most, ++inside);
            ++calls;
            std::this_thread::yield();
            --inside;
        }));
    }

    std::vector<std::future<void>> threads;
    for (int thread = 0; thread < 4; ++thread)
    {
        threads.push_back(std::async(std::launch::async, [&] {
            for (int i = 0; i < 100; ++i)
            {
                logger.Warning("%d", i);
            }
        }));
    }
    threads.clear();

    EXPECT_EQ(most, 1);
    EXPECT_EQ(calls, 800);
}

TEST(LoggerTest, APipeThatNobodyReadsDoesNotEndTheProcess)
{
    std::array<int, 2> ends;
    ASSERT_EQ(::pipe(ends.data()), 0);
    ::close(ends[0]);
    const int original = ::dup(STDERR_FILENO);
    ::dup2(ends[1], STDERR_FILENO);
    ::close(ends[1]);

    FreshLogger().Error("into the void");

    ::dup2(original, STDERR_FILENO);
    ::close(original);
    sigset_t pending;
    sigpending(&pending);
    EXPECT_EQ(sigismember(&pending, SIGPIPE), 0);
    sigset_t blocked;
    pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
    EXPECT_EQ(sigismember(&blocked, SIGPIPE), 0);
}

TEST(LoggerTest, AThreadWithASmallStackCanLog)
{
    DescriptorCapture capture(STDERR_FILENO);
    LoggingBody body(FreshLogger());
    osa::Thread thread("Logging", &body, 32768, 0);

    thread.Run();
    thread.Join();

    const std::vector<std::string> writes = capture.GetWrites();
    ASSERT_THAT(writes, SizeIs(2));
    EXPECT_THAT(writes[0], HasSubstr(": short 1 2.500000\n"));
    EXPECT_THAT(writes[1], HasSubstr(std::string(20000, 'x') + "\n"));
}

}  // namespace korlo::core
