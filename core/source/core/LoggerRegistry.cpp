#include "core/LoggerRegistry.h"

namespace korlo::core
{

LoggerRegistry& LoggerRegistry::Instance()
{
    static LoggerRegistry& registry = *new LoggerRegistry;
    return registry;
}

Logger* LoggerRegistry::Get(const std::string& name)
{
    const osa::MutexAutoLock lock(&_mutex);
    std::unique_ptr<Logger>& pLogger = _loggers[name];
    if (!pLogger)
    {
        pLogger.reset(new Logger(name, _threshold));
    }
    return pLogger.get();
}

void LoggerRegistry::SetThresholds(int threshold)
{
    const osa::MutexAutoLock lock(&_mutex);
    _threshold = threshold;
    for (const auto& [name, pLogger] : _loggers)
    {
        pLogger->SetThreshold(threshold);
    }
}

}  // namespace korlo::core
