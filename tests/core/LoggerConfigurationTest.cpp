#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <future>
#include <map>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include "korlo/core/IniFile.h"
#include "korlo/core/Logger.h"
#include "support/DescriptorCapture.h"
#include "support/LogCapture.h"
#include "support/TemporaryFolder.h"

namespace
{

std::vector<std::string> syslogMessages;
std::string syslogIdent;

}  // namespace

// The linker takes these before the C library's, so that no test writes to the system log of the machine.

extern "C" void openlog(const char* ident, int, int)
{
    syslogIdent = ident;
}

extern "C" void syslog(int priority, const char* format, ...)
{
    std::array<char, 256> text;
    va_list args;
    va_start(args, format);
    std::vsnprintf(text.data(), text.size(), format, args);
    va_end(args);
    syslogMessages.push_back(std::to_string(priority) + ' ' + text.data());
}

namespace korlo::core
{
namespace
{

using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

std::vector<std::string> LinesOf(const std::string& path)
{
    std::ifstream stream(path);
    std::vector<std::string> lines;
    for (std::string line; std::getline(stream, line);)
    {
        lines.push_back(line);
    }
    return lines;
}

}  // namespace

class LoggerConfigurationTest : public testing::Test
{
protected:
    LoggerConfigurationTest()
    {
        Logger::ClearAppenders();
        syslogMessages.clear();
    }

    static void Configure(const std::map<std::string, std::string>& keys)
    {
        IniFile settings;
        settings.SetValue("Other", "log.level", "4");
        for (const auto& [key, value] : keys)
        {
            settings.SetValue("Log", key, value);
        }
        Logger::ConfigureLogging(settings, "Log");
    }

    const TemporaryFolder _folder;
    const std::string _file = _folder.PathOf("app.log");
    const LoggingReset _reset;
    Logger& _logger = *Logger::GetLogger("Configured");
};

TEST_F(LoggerConfigurationTest, TheLevelSetsTheThresholdOfEveryLogger)
{
    const std::pair<const char*, int> rows[] = {{"-1", 0},
                                                {"0", 0},
                                                {"1", LogLevelError},
                                                {"2", LogLevelWarning},
                                                {"3", LogLevelInformation},
                                                {"4", LogLevelTrace},
                                                {"9", LogLevelTrace},
                                                {"2147483647", LogLevelTrace},
                                                {"verbose", LogLevelWarning}};
    for (const auto& [level, threshold] : rows)
    {
        SCOPED_TRACE(level);
        Configure({{"log.level", level}});
        EXPECT_EQ(_logger.GetThreshold(), threshold);
        EXPECT_EQ(Logger::GetLogger(std::string("Made after ") + level)->GetThreshold(), threshold);
    }
}

TEST_F(LoggerConfigurationTest, WithoutALevelWarningsAreTheLast)
{
    _logger.SetThreshold(LogLevelTrace);
    Configure({});
    EXPECT_EQ(_logger.GetThreshold(), LogLevelWarning);
}

TEST_F(LoggerConfigurationTest, StandardOutputTakesTheLinesOnceAsked)
{
    DescriptorCapture output(STDOUT_FILENO);
    DescriptorCapture error(STDERR_FILENO);
    Configure({{"log.level", "3"}, {"log.stdout", "true"}});

    _logger.Information("printed");

    EXPECT_THAT(output.GetWrites(), ElementsAre(EndsWith("] Information Configured: printed\n")));
    EXPECT_THAT(error.GetWrites(), IsEmpty());
}

TEST_F(LoggerConfigurationTest, TheSystemLogGetsEachMessageWithItsSeverity)
{
    Configure({{"log.level", "4"}, {"log.syslog", "true"}});

    _logger.Error("e");
    _logger.Warning("w");
    _logger.Information("i");
    _logger.Trace("t\n%s", "%s");

    EXPECT_EQ(syslogIdent, program_invocation_short_name);
    EXPECT_THAT(syslogMessages,
                ElementsAre("3 Configured: e", "4 Configured: w", "6 Configured: i", "7 Configured: t\\n%s"));
}

TEST_F(LoggerConfigurationTest, AFileIsMadeAndAppendedTo)
{
    Configure({{"log.level", "2"}, {"log.file", _file}});
    _logger.Warning("one");
    Configure({{"log.level", "2"}, {"log.file", _file}});
    _logger.Warning("two");

    EXPECT_THAT(LinesOf(_file), ElementsAre(EndsWith("] Warning Configured: one"), EndsWith("Configured: two")));
    struct stat status = {};
    ASSERT_EQ(::stat(_file.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07137u, 0u);
}

TEST_F(LoggerConfigurationTest, AFileThatIsTruncatedUnderWayStartsAnew)
{
    Configure({{"log.file", _file}});
    _logger.Warning("one");
    std::filesystem::resize_file(_file, 0);
    _logger.Warning("two");

    EXPECT_THAT(LinesOf(_file), ElementsAre(EndsWith("Configured: two")));
}

TEST_F(LoggerConfigurationTest, SeveralOutputsGetEachMessageOnce)
{
    DescriptorCapture output(STDOUT_FILENO);
    Configure({{"log.stdout", "true"}, {"log.syslog", "true"}, {"log.file", _file}});

    _logger.Warning("everywhere");

    EXPECT_THAT(output.GetWrites(), SizeIs(1));
    EXPECT_THAT(syslogMessages, SizeIs(1));
    EXPECT_THAT(LinesOf(_file), SizeIs(1));
}

TEST_F(LoggerConfigurationTest, ReplacesWhatWasConfiguredAndKeepsWhatWasAdded)
{
    const auto pAdded = std::make_shared<RecordingAppender>();
    Logger::AddAppender(pAdded);
    Configure({{"log.file", _file}});
    Configure({{"log.file", _folder.PathOf("second.log")}});

    _logger.Warning("new");

    EXPECT_THAT(LinesOf(_file), IsEmpty());
    EXPECT_THAT(LinesOf(_folder.PathOf("second.log")), SizeIs(1));
    EXPECT_THAT(pAdded->GetMessages(), ElementsAre("4 Configured: new"));
}

TEST_F(LoggerConfigurationTest, StandardErrorIsSilentOnceSomethingIsConfigured)
{
    Configure({{"using_defs", "true"}});
    Configure({{"log.syslog", "true"}});
    DescriptorCapture error(STDERR_FILENO);

    _logger.Error("elsewhere");

    EXPECT_THAT(error.GetWrites(), IsEmpty());
}

TEST_F(LoggerConfigurationTest, TheDefaultsComeBackWhereTheSettingsSayThatTheyAreUsed)
{
    Configure({{"log.level", "4"}, {"log.file", _file}});
    Configure({{"using_defs", "true"}, {"log.level", "4"}, {"log.file", _file}, {"log.syslog", "true"}});
    DescriptorCapture error(STDERR_FILENO);

    _logger.Warning("default");
    _logger.Information("dropped");

    EXPECT_THAT(error.GetWrites(), ElementsAre(EndsWith("] Warning Configured: default\n")));
    EXPECT_THAT(LinesOf(_file), IsEmpty());
    EXPECT_THAT(syslogMessages, IsEmpty());
}

TEST_F(LoggerConfigurationTest, AFileThatCannotBeOpenedCostsAWarningInTheOtherOutputs)
{
    const std::string file = _folder.PathOf("missing/app.log");
    DescriptorCapture error(STDERR_FILENO);
    Configure({{"log.level", "1"}, {"log.syslog", "true"}, {"log.file", file}});
    _logger.Error("still heard");

    EXPECT_THAT(syslogMessages,
                ElementsAre("4 Logger: Failed to open log file '" + file + "': No such file or directory",
                            "3 Configured: still heard"));
    EXPECT_THAT(error.GetWrites(), IsEmpty());
}

TEST_F(LoggerConfigurationTest, WhereTheFileWasTheOnlyOutputStandardErrorTakesItsPlace)
{
    DescriptorCapture error(STDERR_FILENO);
    Configure({{"log.level", "1"}, {"log.file", _folder.GetPath()}});
    _logger.Error("still heard");

    EXPECT_THAT(error.GetWrites(), ElementsAre(HasSubstr("Warning Logger: Failed to open log file '" +
                                                         _folder.GetPath() + "': Is a directory\n"),
                                               EndsWith("Error Configured: still heard\n")));
}

TEST_F(LoggerConfigurationTest, WithoutAnyOutputStandardErrorTakesTheLines)
{
    const std::map<std::string, std::string> rows[] = {
        {},
        {{"log.level", "2"}},
        {{"log.syslog", "false"}, {"log.stdout", "false"}, {"using_defs", "false"}},
        {{"log.syslog", "perhaps"}, {"log.file", ""}}};
    for (const auto& keys : rows)
    {
        SCOPED_TRACE(testing::PrintToString(keys));
        Logger::ClearAppenders();
        DescriptorCapture error(STDERR_FILENO);
        Configure(keys);
        _logger.Warning("heard");
        EXPECT_THAT(error.GetWrites(), ElementsAre(EndsWith("] Warning Configured: heard\n")));
    }
}

TEST_F(LoggerConfigurationTest, TheLevelHoldsForStandardErrorToo)
{
    DescriptorCapture error(STDERR_FILENO);
    Configure({{"log.level", "1"}});
    _logger.Warning("dropped");
    _logger.Error("heard");
    Configure({{"log.level", "0"}});
    _logger.Error("dropped");
    EXPECT_THAT(error.GetWrites(), ElementsAre(EndsWith("] Error Configured: heard\n")));
}

TEST_F(LoggerConfigurationTest, APathThatTheSystemWouldCutIsRefused)
{
    DescriptorCapture error(STDERR_FILENO);
    Configure({{"log.file", _file + '\0' + "x"}});

    EXPECT_THAT(error.GetWrites(), ElementsAre(HasSubstr("Invalid argument")));
    EXPECT_FALSE(std::filesystem::exists(_file));
}

TEST_F(LoggerConfigurationTest, LoggingThatIsTurnedOffSaysNothingAtAll)
{
    DescriptorCapture error(STDERR_FILENO);
    Configure({{"log.level", "0"}, {"log.file", _folder.PathOf("missing/app.log")}});

    _logger.Error("unheard");

    EXPECT_THAT(error.GetWrites(), IsEmpty());
}

TEST_F(LoggerConfigurationTest, OpeningAPipeThatNobodyReadsDoesNotWait)
{
    ASSERT_EQ(::mkfifo(_file.c_str(), 0600), 0);
    DescriptorCapture error(STDERR_FILENO);

    Configure({{"log.file", _file}});

    EXPECT_THAT(error.GetWrites(), ElementsAre(HasSubstr("Failed to open log file '" + _file)));
}

TEST_F(LoggerConfigurationTest, WhatAFullDiskDoesNotTakeGoesToStandardError)
{
    Configure({{"log.file", "/dev/full"}});
    DescriptorCapture error(STDERR_FILENO);

    _logger.Warning("not lost");

    EXPECT_THAT(error.GetWrites(), ElementsAre(EndsWith("Configured: not lost\n")));
}

TEST_F(LoggerConfigurationTest, NoLineIsTornLostOrDoubledWhileLoggingIsReconfigured)
{
    constexpr int threads = 4;
    constexpr int messages = 500;
    const std::string other = _folder.PathOf("other.log");
    Configure({{"log.file", _file}});

    std::vector<std::future<void>> done;
    for (int thread = 0; thread < threads; ++thread)
    {
        done.push_back(std::async(std::launch::async, [this, thread] {
            for (int i = 0; i < messages; ++i)
            {
                _logger.Warning("<%d %d>", thread, i);
            }
        }));
    }
    for (int i = 0; i < 100; ++i)
    {
        Configure({{"log.file", i % 2 == 0 ? other : _file}, {"log.level", i % 3 == 0 ? "4" : "2"}});
    }
    done.clear();

    std::map<std::string, int> seen;
    for (const std::string& path : {_file, other})
    {
        for (const std::string& line : LinesOf(path))
        {
            const std::size_t begin = line.find("] Warning Configured: <");
            ASSERT_NE(begin, std::string::npos) << line;
            ASSERT_EQ(line.find('>'), line.size() - 1) << line;
            ++seen[line.substr(begin)];
        }
    }
    EXPECT_THAT(seen, SizeIs(threads * messages));
    for (const auto& [text, count] : seen)
    {
        EXPECT_EQ(count, 1) << text;
    }
}

TEST(LoggerLevelTest, SetsTheThresholdOfEveryLoggerAndLeavesTheAppenders)
{
    LogCapture log;
    Logger& present = *Logger::GetLogger("LevelPresent");
    Logger::SetLevel(3);
    Logger& future = *Logger::GetLogger("LevelFuture");
    present.Information("shown");
    future.Information("shown");
    future.Trace("hidden");
    EXPECT_THAT(log.GetMessages(), ElementsAre("6 LevelPresent: shown", "6 LevelFuture: shown"));
}

}  // namespace korlo::core
