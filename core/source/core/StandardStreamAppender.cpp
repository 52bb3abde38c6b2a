#include "core/StandardStreamAppender.h"

#include "core/LogLine.h"

namespace korlo::core
{

StandardStreamAppender::StandardStreamAppender(Stream stream) : _stream(stream)
{
}

void StandardStreamAppender::Append(const Logger& logger, LogLevel level, const std::string& message)
{
    WriteLine(_stream, FormatLogLine(logger, level, message));
}

}  // namespace korlo::core
