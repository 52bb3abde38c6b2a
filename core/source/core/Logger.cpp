#include "korlo/core/Logger.h"

#include <cerrno>
#include <new>
#include <utility>

#include "FormatText.h"
#include "core/LogDispatcher.h"
#include "core/LoggerRegistry.h"

namespace korlo::core
{

Logger* Logger::GetLogger(const std::string& name)
{
    return LoggerRegistry::Instance().Get(name);
}

void Logger::AddAppender(std::shared_ptr<ILogAppender> pAppender)
{
    if (pAppender)
    {
        LogDispatcher::Instance().Add(std::move(pAppender));
    }
}

void Logger::ClearAppenders()
{
    LogDispatcher::Instance().Clear();
}

void Logger::LogMessageV(LogLevel level, const char* format, va_list args) const
{
    const int errorBefore = errno;
    try
    {
        LogDispatcher::Instance().Dispatch(*this, level, FormatText(format, args));
    }
    catch (const std::bad_alloc&)
    {
        // A message must not end the work that it tells of.
    }
    errno = errorBefore;
}

}  // namespace korlo::core
