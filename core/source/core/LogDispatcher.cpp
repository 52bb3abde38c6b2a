#include "core/LogDispatcher.h"

#include <algorithm>
#include <exception>
#include <utility>

#include "core/LoggerRegistry.h"
#include "core/StandardStreamAppender.h"

namespace korlo::core
{

LogDispatcher& LogDispatcher::Instance()
{
    static LogDispatcher& dispatcher = *new LogDispatcher;
    return dispatcher;
}

LogDispatcher::LogDispatcher()
    : _pEntries(std::make_shared<Entries>(
          Entries{{std::make_shared<StandardStreamAppender>(StandardStreamAppender::StandardError), true}}))
{
}

void LogDispatcher::Dispatch(const Logger& logger, LogLevel level, const std::string& message)
{
    const osa::MutexAutoLock lock(&_mutex);
    const std::shared_ptr<const Entries> pEntries = _pEntries;
    for (const Entry& entry : *pEntries)
    {
        if (!IsRunning(*entry.pAppender))
        {
            Append(*entry.pAppender, logger, level, message);
        }
    }
}

bool LogDispatcher::IsRunning(const ILogAppender& appender) const
{
    return std::find(_running.begin(), _running.end(), &appender) != _running.end();
}

void LogDispatcher::Append(ILogAppender& appender, const Logger& logger, LogLevel level, const std::string& message)
{
    _running.push_back(&appender);
    try
    {
        appender.Append(logger, level, message);
    }
    catch (const std::exception&)
    {
        // An appender that fails must not end the operation that logs, nor keep the message from the other appenders.
    }
    _running.pop_back();
}

// What the three below take out is destroyed after the lock is released, where a destructor may do as it likes.

void LogDispatcher::Add(std::shared_ptr<ILogAppender> pAppender)
{
    std::shared_ptr<const Entries> pOld;
    const osa::MutexAutoLock lock(&_mutex);
    auto pEntries = std::make_shared<Entries>(*_pEntries);
    pEntries->push_back({std::move(pAppender), false});
    pOld = std::exchange(_pEntries, std::move(pEntries));
}

void LogDispatcher::Clear()
{
    std::shared_ptr<const Entries> pOld = std::make_shared<Entries>();
    const osa::MutexAutoLock lock(&_mutex);
    _pEntries.swap(pOld);
}

void LogDispatcher::Configure(const std::vector<std::shared_ptr<ILogAppender>>& builtIn, int threshold)
{
    std::shared_ptr<const Entries> pOld;
    const osa::MutexAutoLock lock(&_mutex);
    auto pEntries = std::make_shared<Entries>(*_pEntries);
    std::erase_if(*pEntries, [](const Entry& entry) { return entry.isBuiltIn; });
    for (const std::shared_ptr<ILogAppender>& pAppender : builtIn)
    {
        pEntries->push_back({pAppender, true});
    }
    pOld = std::exchange(_pEntries, std::move(pEntries));
    LoggerRegistry::Instance().SetThresholds(threshold);
}

}  // namespace korlo::core
