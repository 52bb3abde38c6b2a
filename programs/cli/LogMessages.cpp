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

constexpr const char* ClientLog = "KorloSettings";
constexpr const char* ConnectionLog = "KorloSettingsConnection";

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

/// Thread safety: as ILogAppender says.
class ReconnectionAppender : public core::ILogAppender
{
public:
    void Append(const Logger& logger, LogLevel level, const std::string& message) override
    {
        if (logger.GetName() != ClientLog && logger.GetName() != ConnectionLog)
        {
            _other.Append(logger, level, message);
        }
        else if (message.starts_with("Connected"))
        {
            SetConnected(true);
        }
        else if (message.starts_with("(re)Connecting"))
        {
            SetConnected(false);
        }
    }

private:
    void SetConnected(bool isConnected)
    {
        if (_isConnected != isConnected)
        {
            _isConnected = isConnected;
            WriteMessage(isConnected ? "the settings server is back"
                                     : "the settings server is gone; waiting for it to come back");
        }
    }

    MessageAppender _other;
    bool _isConnected = true;
};

}  // namespace

void LogAsMessages()
{
    Logger::ClearAppenders();
    Logger::AddAppender(std::make_shared<MessageAppender>());
}

void LogReconnections()
{
    Logger::ClearAppenders();
    Logger::AddAppender(std::make_shared<ReconnectionAppender>());
    Logger::GetLogger(ClientLog)->SetThreshold(core::LogLevelInformation);
}

}  // namespace korlo::settings::cli
