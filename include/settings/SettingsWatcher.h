#pragma once
// Keeps variables of the application equal to settings.

#include <memory>
#include <string>

namespace korlo::settings
{

class KorloSettingsClient;

/// Binds variables to settings. Register all of them, then call UpdateSettings now and then: each call that finds
/// something new writes every registered variable, on the calling thread and nowhere else.
///
///     int volume = 0;
///     SettingsWatcher watcher(&client);
///     watcher.AddSetting("Audio", "volume", &volume);
///     while (running)
///         if (watcher.UpdateSettings())
///             SetVolume(volume);
///
/// After the client had no connection, the variables follow what changed meanwhile if
/// KorloSettingsClient::ReportMissedChanges was turned on before the first UpdateSettings.
///
/// A setting that is missing or malformed writes 0, false or the empty string.
///
/// Thread safety: one thread owns the watcher and the variables. It may be destroyed when an IniWatcher may.
class SettingsWatcher
{
public:
    /// @param pClient borrowed; must outlive the watcher and be able to subscribe.
    /// @throws osa::Exception "%s was NULL".
    explicit SettingsWatcher(KorloSettingsClient* pClient);
    SettingsWatcher(const SettingsWatcher&) = delete;
    SettingsWatcher& operator=(const SettingsWatcher&) = delete;

    /// Unsubscribes; the variables stay as they are.
    ~SettingsWatcher();

    /// Binds a variable; it is not written yet. After the first UpdateSettings, a binding sees only groups that were
    /// watched before.
    /// @param pVariable borrowed, not null; must outlive the watcher.
    /// @throws osa::Exception "%s was NULL".
    void AddSetting(const std::string& group, const std::string& key, int* pVariable);
    void AddSetting(const std::string& group, const std::string& key, bool* pVariable);
    void AddSetting(const std::string& group, const std::string& key, std::string* pVariable);

    /// The first call reads the settings, subscribes, writes every variable and returns true. A later one does so only
    /// if any watched group has changed, and otherwise returns false, at next to no cost.
    /// @throws whatever the client throws in the first call.
    bool UpdateSettings();

    /// As a later UpdateSettings, but returns false instead of waiting while a notification is being recorded.
    /// @throws osa::Exception "TryUpdate called before Update".
    bool TryUpdateSettings();

private:
    class SettingBase;
    template <typename T>
    class Setting;
    class SettingsWatcherImpl;

    std::unique_ptr<SettingsWatcherImpl> _pImpl;
};

}  // namespace korlo::settings
