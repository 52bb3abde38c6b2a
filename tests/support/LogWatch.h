#pragma once
// Waiting for what is logged.

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "support/LogCapture.h"

namespace korlo
{

/// As LogCapture, and lets a test wait for a message.
///
/// Thread safety: all methods, from any thread.
class LogWatch
{
public:
    LogWatch()
    {
        core::Logger::ClearAppenders();
        core::Logger::AddAppender(_pAppender);
    }

    /// True once that message ("LEVEL LOGGER: MESSAGE") has come so many times; false after a long wait.
    bool WaitFor(const std::string& message, int times = 1) { return _pAppender->WaitFor(message, times); }

    std::vector<std::string> GetMessages() const { return _pAppender->GetMessages(); }

    int Count(const std::string& message) const
    {
        const std::vector<std::string> messages = GetMessages();
        return static_cast<int>(std::count(messages.begin(), messages.end(), message));
    }

private:
    class Appender : public core::ILogAppender
    {
    public:
        void Append(const core::Logger& logger, core::LogLevel level, const std::string& message) override
        {
            const std::lock_guard lock(_mutex);
            _messages.push_back(std::to_string(level) + ' ' + logger.GetName() + ": " + message);
            _added.notify_all();
        }

        bool WaitFor(const std::string& message, int times)
        {
            std::unique_lock lock(_mutex);
            return _added.wait_for(lock, std::chrono::seconds(30),
                                   [&] { return std::count(_messages.begin(), _messages.end(), message) >= times; });
        }

        std::vector<std::string> GetMessages() const
        {
            const std::lock_guard lock(_mutex);
            return _messages;
        }

    private:
        mutable std::mutex _mutex;
        std::condition_variable _added;
        std::vector<std::string> _messages;
    };

    LoggingReset _reset;
    std::shared_ptr<Appender> _pAppender = std::make_shared<Appender>();
};

}  // namespace korlo
