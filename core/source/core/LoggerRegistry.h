#pragma once
// The loggers of the process by their names.

#include <map>
#include <memory>
#include <string>

#include "korlo/core/Logger.h"
#include "korlo/osa/Mutex.h"
#include "korlo/osa/ThreadAnnotations.h"

namespace korlo::core
{

/// Makes each logger once and keeps it for good.
///
/// Thread safety: all methods, from any thread.
class LoggerRegistry
{
public:
    /// The one of this process. Never destroyed: loggers are used until the very end.
    static LoggerRegistry& Instance();

    Logger* Get(const std::string& name);

    /// Sets the threshold of every logger, present and future.
    void SetThresholds(int threshold);

private:
    LoggerRegistry() = default;

    osa::Mutex _mutex;  // taken inside the dispatcher's, never the other way round
    std::map<std::string, std::unique_ptr<Logger>> _loggers KORLO_GUARDED_BY(_mutex);
    int _threshold KORLO_GUARDED_BY(_mutex) = LogLevelWarning;  // of loggers yet to come
};

}  // namespace korlo::core
