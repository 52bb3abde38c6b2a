#include "core/SyslogAppender.h"

#include <algorithm>

#include <syslog.h>

#include "core/LogLine.h"

namespace korlo::core
{

// The process has one connection to the system log, and it is never closed: the appender of the next configuration
// already uses it when that of the previous one is destroyed.
SyslogAppender::SyslogAppender()
{
    ::openlog(GetProgramName(), LOG_PID, LOG_DAEMON);
}

void SyslogAppender::Append(const Logger& logger, LogLevel level, const std::string& message)
{
    const int priority = std::min(static_cast<int>(level), LOG_DEBUG);
    ::syslog(priority, "%s: %s", EscapeControls(logger.GetName()).c_str(), EscapeControls(message).c_str());
}

}  // namespace korlo::core
