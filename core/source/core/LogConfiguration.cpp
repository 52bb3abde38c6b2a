#include "korlo/core/Logger.h"

#include <memory>
#include <string>
#include <vector>

#include "core/FileAppender.h"
#include "core/LogDispatcher.h"
#include "core/LoggerRegistry.h"
#include "core/StandardStreamAppender.h"
#include "core/SyslogAppender.h"
#include "korlo/core/IniFile.h"
#include "korlo/osa/Exception.h"

namespace korlo::core
{
namespace
{

using Appenders = std::vector<std::shared_ptr<ILogAppender>>;

std::shared_ptr<ILogAppender> MakeStandardErrorAppender()
{
    return std::make_shared<StandardStreamAppender>(StandardStreamAppender::StandardError);
}

/// The threshold that the "log.level" of settings stands for.
int ThresholdOf(int settingsLevel)
{
    if (settingsLevel <= 0)
    {
        return 0;
    }
    switch (settingsLevel)
    {
    case 1:
        return LogLevelError;
    case 2:
        return LogLevelWarning;
    case 3:
        return LogLevelInformation;
    default:
        return LogLevelTrace;
    }
}

/// The appenders that the settings ask for, or the one to standard error when there is none: settings that name no
/// output must not silence the process. What keeps the file from being one of them goes to `failure`.
Appenders MakeAppenders(const IniFile& settings, const std::string& group, std::string& failure)
{
    Appenders appenders;
    if (settings.GetBoolOrDefault(group, "log.syslog", false))
    {
        appenders.push_back(std::make_shared<SyslogAppender>());
    }
    if (settings.GetBoolOrDefault(group, "log.stdout", false))
    {
        appenders.push_back(std::make_shared<StandardStreamAppender>(StandardStreamAppender::StandardOutput));
    }
    const std::string file = settings.GetValueOrDefault(group, "log.file");
    try
    {
        if (!file.empty())
        {
            appenders.push_back(std::make_shared<FileAppender>(file));
        }
    }
    catch (const osa::Exception& exception)
    {
        failure = exception.what();
    }
    if (appenders.empty())
    {
        appenders.push_back(MakeStandardErrorAppender());
    }
    return appenders;
}

}  // namespace

void Logger::ConfigureLogging(const IniFile& settings, const std::string& group)
{
    if (settings.GetBoolOrDefault(group, "using_defs", false))
    {
        LogDispatcher::Instance().Configure({MakeStandardErrorAppender()}, LogLevelWarning);
        return;
    }

    constexpr int levelOfWarnings = 2;
    const int threshold = ThresholdOf(settings.GetIntOrDefault(group, "log.level", levelOfWarnings));
    std::string failure;
    const Appenders appenders = MakeAppenders(settings, group, failure);
    LogDispatcher::Instance().Configure(appenders, threshold);
    if (!failure.empty() && threshold > 0)
    {
        // Whatever the threshold: where only errors are logged, a person must still learn why the file stays empty.
        LogDispatcher::Instance().Dispatch(*GetLogger("Logger"), LogLevelWarning, failure);
    }
}

void Logger::SetLevel(int level)
{
    LoggerRegistry::Instance().SetThresholds(ThresholdOf(level));
}

}  // namespace korlo::core
