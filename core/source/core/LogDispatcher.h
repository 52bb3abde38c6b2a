#pragma once
// Which appenders there are, and how a message gets to them.

#include <memory>
#include <string>
#include <vector>

#include "korlo/core/Logger.h"
#include "korlo/osa/Mutex.h"
#include "korlo/osa/ThreadAnnotations.h"

namespace korlo::core
{

/// The appenders of the process. Starts with the one to standard error.
///
/// Thread safety: all methods, from any thread.
class LogDispatcher
{
public:
    /// The one of this process. Never destroyed: objects log until the very end.
    static LogDispatcher& Instance();

    /// Hands the message to every appender, but to those that are logging it out of their own Append.
    void Dispatch(const Logger& logger, LogLevel level, const std::string& message);

    void Add(std::shared_ptr<ILogAppender> pAppender);
    void Clear();

    /// Replaces the built-in appenders, and the thresholds of all loggers, with no message in between.
    void Configure(const std::vector<std::shared_ptr<ILogAppender>>& builtIn, int threshold);

private:
    struct Entry
    {
        std::shared_ptr<ILogAppender> pAppender;
        bool isBuiltIn;
    };
    using Entries = std::vector<Entry>;

    LogDispatcher();

    bool IsRunning(const ILogAppender& appender) const KORLO_REQUIRES(_mutex);
    void Append(ILogAppender& appender, const Logger& logger, LogLevel level, const std::string& message)
        KORLO_REQUIRES(_mutex);

    osa::Mutex _mutex;  // taken again by an appender that logs or changes the appenders
    std::shared_ptr<const Entries> _pEntries KORLO_GUARDED_BY(_mutex);   // replaced, never changed: a walk goes on
    std::vector<const ILogAppender*> _running KORLO_GUARDED_BY(_mutex);  // whose Append is under way, outermost first
};

}  // namespace korlo::core
