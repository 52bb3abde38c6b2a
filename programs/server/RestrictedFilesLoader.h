#pragma once
// Restricted settings from files.

#include "LoadedFiles.h"
#include "SettingsFiles.h"
#include "settings/server/IRestrictedSettingsLoader.h"

namespace korlo::daemon
{

/// Loads the restricted settings from INI files that the device's owner trusts. Groups of other names are taken too.
/// Where clients are refused changes, the group by which they are told (docs/access.md) is left out, with a warning: a
/// pattern would show it, and a client take it for a refusal.
///
/// Thread safety: as IRestrictedSettingsLoader.
class RestrictedFilesLoader : public settings::server::IRestrictedSettingsLoader
{
public:
    static constexpr const char* RefusedGroup = "KorloSettings/Trusted/Refused";

    /// @param clientsAreRefused there are access rules.
    /// @param pLoaded hears of each file that is loaded; borrowed, may be null.
    RestrictedFilesLoader(const SettingsFiles& files, bool clientsAreRefused, LoadedFiles* pLoaded = nullptr)
        : _files(files),
          _clientsAreRefused(clientsAreRefused),
          _pLoaded(pLoaded)
    {
    }

    /// @throws osa::Exception naming the file that cannot be read, and the reason.
    void LoadRestrictedSettings(settings::server::SettingsCombiner& combiner) override;

private:
    const SettingsFiles _files;
    const bool _clientsAreRefused;
    LoadedFiles* const _pLoaded;  // borrowed, may be null
};

}  // namespace korlo::daemon
