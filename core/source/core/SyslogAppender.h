#pragma once
// Log messages in the system log.

#include "korlo/core/Logger.h"

namespace korlo::core
{

/// Hands each message to syslog(3), under the program's name and process number, as "LOGGER: MESSAGE".
///
/// Thread safety: as ILogAppender.
class SyslogAppender : public ILogAppender
{
public:
    SyslogAppender();

    void Append(const Logger& logger, LogLevel level, const std::string& message) override;
};

}  // namespace korlo::core
