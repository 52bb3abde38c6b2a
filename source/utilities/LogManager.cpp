#include "settings/LogManager.h"

#include <string>

#include "korlo/core/IniFile.h"
#include "korlo/core/Logger.h"
#include "korlo/osa/Exception.h"
#include "settings/IChangeCallback.h"
#include "settings/KorloSettingsClient.h"

namespace korlo::settings
{
namespace
{

using core::IniFile;
using core::Logger;

constexpr const char* LevelKey = "log.level";
constexpr const char* FileKey = "log.file";
constexpr int DefaultLevel = 1;  // errors

void SetDefaults(IniFile& settings, const std::string& group)
{
    settings.SetValue(group, "log.syslog", "true");
    settings.SetValue(group, "log.stdout", "false");
    settings.SetValue(group, "using_defs", "false");
    settings.SetInt(group, LevelKey, DefaultLevel);
}

}  // namespace

/// Thread safety: as LogManager.
class LogManager::ChangeCallback final : public IChangeCallback
{
public:
    ChangeCallback(KorloSettingsClient* pClient, const char* group)
        : _pLogger(Logger::GetLogger("LogManager")),
          _pClient(osa::NotNull(pClient, "client")),
          _group(osa::NotNull(group, "group"))
    {
        IniFile current;
        _pClient->GetSettings(_group, current);
        if (!current.HasValue(_group, LevelKey))
        {
            SetDefaults(current, _group);
            _pClient->MergeSettings(current);
        }
        Reconfigure(current);
        Subscribe();
    }

    ~ChangeCallback() override { _pClient->UnSubscribe(this); }

    void OnChange(const GroupNameCollection&, const IniFile& settings) override { Reconfigure(settings); }

private:
    void Subscribe()
    {
        try
        {
            _pClient->Subscribe(this, _group);
        }
        catch (const std::exception&)
        {
            _pLogger->Error("Failed to subscribe to log settings - probably created KorloSettingsClient in "
                            "SingleThreaded mode instead of MultiThreaded");
        }
    }

    void Reconfigure(const IniFile& settings)
    {
        _pLogger->Information("Reconfiguring logging");
        Logger::ClearAppenders();
        Logger::ConfigureLogging(settings, _group);
        if (settings.HasValue(_group, FileKey))
        {
            Logger::ModifyLogRotateConf(settings.GetValue(_group, FileKey), _group);
        }
        _pLogger->Information("Finished reconfiguring logging");
    }

    Logger* _pLogger;               // not owned
    KorloSettingsClient* _pClient;  // borrowed
    std::string _group;
};

LogManager::LogManager(KorloSettingsClient* pClient, const char* group)
    : _pCallback(std::make_unique<ChangeCallback>(pClient, group))
{
}

LogManager::~LogManager() = default;

}  // namespace korlo::settings
