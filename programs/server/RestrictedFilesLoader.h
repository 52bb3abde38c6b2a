#pragma once
// Restricted settings from files.

#include "SettingsFiles.h"
#include "settings/server/IRestrictedSettingsLoader.h"

namespace korlo::daemon
{

/// Loads the restricted settings from INI files that the device's owner trusts. Groups of other names are taken too.
///
/// Thread safety: as IRestrictedSettingsLoader.
class RestrictedFilesLoader : public settings::server::IRestrictedSettingsLoader
{
public:
    explicit RestrictedFilesLoader(const SettingsFiles& files) : _files(files) {}

    /// @throws osa::Exception naming the file that cannot be read, and the reason.
    void LoadRestrictedSettings(settings::server::SettingsCombiner& combiner) override;

private:
    const SettingsFiles _files;
};

}  // namespace korlo::daemon
