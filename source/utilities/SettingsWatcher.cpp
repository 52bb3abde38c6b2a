#include "settings/SettingsWatcher.h"

#include <vector>

#include "korlo/core/IniFile.h"
#include "korlo/core/Logger.h"
#include "korlo/osa/Exception.h"
#include "settings/IniWatcher.h"

namespace korlo::settings
{
namespace
{

using core::IniFile;

void Read(const IniFile& ini, const std::string& group, const std::string& key, int& variable)
{
    variable = ini.GetIntOrDefault(group, key, 0);
}

void Read(const IniFile& ini, const std::string& group, const std::string& key, bool& variable)
{
    variable = ini.GetBoolOrDefault(group, key, false);
}

void Read(const IniFile& ini, const std::string& group, const std::string& key, std::string& variable)
{
    variable = ini.GetValueOrDefault(group, key);
}

}  // namespace

/// One binding. Thread safety: as SettingsWatcher.
class SettingsWatcher::SettingBase
{
public:
    SettingBase(const std::string& group, const std::string& key) : _group(group), _key(key) {}
    SettingBase(const SettingBase&) = delete;
    SettingBase& operator=(const SettingBase&) = delete;
    virtual ~SettingBase() = default;

    /// Writes the variable.
    virtual void ReadSetting(const IniFile& ini) = 0;

protected:
    const std::string _group;
    const std::string _key;
};

/// A binding to a variable of one type. Thread safety: as SettingsWatcher.
template <typename T>
class SettingsWatcher::Setting : public SettingsWatcher::SettingBase
{
public:
    Setting(const std::string& group, const std::string& key, T* pVariable)
        : SettingBase(group, key),
          _pVariable(pVariable)
    {
        if (pVariable == nullptr)
        {
            throw osa::Exception("%s was NULL", "variable");
        }
    }

    void ReadSetting(const IniFile& ini) override { Read(ini, _group, _key, *_pVariable); }

private:
    T* const _pVariable;  // borrowed
};

/// Thread safety: as SettingsWatcher.
class SettingsWatcher::SettingsWatcherImpl
{
public:
    explicit SettingsWatcherImpl(KorloSettingsClient* pClient)
        : _pLogger(core::Logger::GetLogger("SettingsWatcher")),
          _watcher(pClient, &_mirror)
    {
    }

    SettingsWatcherImpl(const SettingsWatcherImpl&) = delete;
    SettingsWatcherImpl& operator=(const SettingsWatcherImpl&) = delete;
    virtual ~SettingsWatcherImpl() = default;

    template <typename T>
    void Add(const std::string& group, const std::string& key, T* pVariable)
    {
        auto pSetting = std::make_unique<Setting<T>>(group, key, pVariable);
        _watcher.AddPattern(group);
        _settings.push_back(std::move(pSetting));
    }

    bool Update() { return _watcher.Update() && WriteVariables(); }
    bool TryUpdate() { return _watcher.TryUpdate() && WriteVariables(); }

private:
    bool WriteVariables()
    {
        _pLogger->Trace("Writing %u variables", static_cast<unsigned int>(_settings.size()));
        for (const auto& pSetting : _settings)
        {
            pSetting->ReadSetting(_mirror);
        }
        return true;
    }

    core::Logger* _pLogger;  // not owned
    IniFile _mirror;         // before the watcher, which borrows it
    IniWatcher _watcher;
    std::vector<std::unique_ptr<SettingBase>> _settings;
};

SettingsWatcher::SettingsWatcher(KorloSettingsClient* pClient) : _pImpl(std::make_unique<SettingsWatcherImpl>(pClient))
{
}

SettingsWatcher::~SettingsWatcher() = default;

void SettingsWatcher::AddSetting(const std::string& group, const std::string& key, int* pVariable)
{
    _pImpl->Add(group, key, pVariable);
}

void SettingsWatcher::AddSetting(const std::string& group, const std::string& key, bool* pVariable)
{
    _pImpl->Add(group, key, pVariable);
}

void SettingsWatcher::AddSetting(const std::string& group, const std::string& key, std::string* pVariable)
{
    _pImpl->Add(group, key, pVariable);
}

bool SettingsWatcher::UpdateSettings()
{
    return _pImpl->Update();
}

bool SettingsWatcher::TryUpdateSettings()
{
    return _pImpl->TryUpdate();
}

}  // namespace korlo::settings
