#pragma once
// What is logged during a test, and logging as it was before the test.

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "korlo/core/IniFile.h"
#include "korlo/core/Logger.h"

namespace korlo
{

/// Puts logging back to the built-in defaults when it goes.
///
/// Thread safety: none of its own; the owner guards it.
class LoggingReset
{
public:
    LoggingReset() = default;
    LoggingReset(const LoggingReset&) = delete;
    LoggingReset& operator=(const LoggingReset&) = delete;

    ~LoggingReset()
    {
        core::IniFile settings;
        settings.SetValue("Log", "using_defs", "true");
        core::Logger::ClearAppenders();
        core::Logger::ConfigureLogging(settings, "Log");
    }
};

/// An appender that keeps every message, as "LEVEL LOGGER: MESSAGE".
///
/// Thread safety: all methods, from any thread.
class RecordingAppender : public core::ILogAppender
{
public:
    void Append(const core::Logger& logger, core::LogLevel level, const std::string& message) override
    {
        const std::lock_guard lock(_mutex);
        _messages.push_back(std::to_string(level) + ' ' + logger.GetName() + ": " + message);
    }

    std::vector<std::string> GetMessages() const
    {
        const std::lock_guard lock(_mutex);
        return _messages;
    }

private:
    mutable std::mutex _mutex;
    std::vector<std::string> _messages;
};

/// Keeps what is logged while it lives, instead of letting it out. Errors and warnings, unless a logger's threshold is
/// raised.
///
///     LogCapture log;
///     Load("broken.ini");
///     EXPECT_THAT(log.GetMessages(), ElementsAre("4 IniFile: broken.ini:3: ..."));
///
/// Thread safety: all methods, from any thread.
class LogCapture
{
public:
    LogCapture()
    {
        core::Logger::ClearAppenders();
        core::Logger::AddAppender(_pAppender);
    }

    std::vector<std::string> GetMessages() const { return _pAppender->GetMessages(); }

private:
    LoggingReset _reset;
    std::shared_ptr<RecordingAppender> _pAppender = std::make_shared<RecordingAppender>();
};

}  // namespace korlo
