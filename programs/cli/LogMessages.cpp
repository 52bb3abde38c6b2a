#include "LogMessages.h"

#include <memory>
#include <string>

#include "Failure.h"
#include "StandardStreams.h"
#include "korlo/core/Logger.h"

namespace korlo::settings::cli
{
namespace
{

using core::Logger;
using core::LogLevel;

/// Thread safety: as ILogAppender says.
class MessageAppender : public core::ILogAppender
{
public:
    void Append(const Logger&, LogLevel, const std::string& message) override
    {
        if (message != _last)
        {
            _last = message;
            WriteMessage(Reason(message));
        }
    }

private:
    std::string _last;
};

}  // namespace

void LogAsMessages()
{
    Logger::ClearAppenders();
    Logger::AddAppender(std::make_shared<MessageAppender>());
}

void SilenceConnection()
{
    for (const char* name : {"KorloSettings", "KorloSettingsConnection"})
    {
        Logger::GetLogger(name)->SetThreshold(0);
    }
}

}  // namespace korlo::settings::cli
