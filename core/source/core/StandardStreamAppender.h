#pragma once
// Log messages as lines on standard error or standard output.

#include "korlo/core/Logger.h"

namespace korlo::core
{

/// Writes each message as one line to a descriptor of the process that it neither opens nor closes.
///
/// Thread safety: as ILogAppender.
class StandardStreamAppender : public ILogAppender
{
public:
    enum Stream
    {
        StandardOutput = 1,
        StandardError = 2
    };

    explicit StandardStreamAppender(Stream stream);

    void Append(const Logger& logger, LogLevel level, const std::string& message) override;

private:
    const Stream _stream;
};

}  // namespace korlo::core
