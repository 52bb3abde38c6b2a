#pragma once
// How a store tells its storage what was changed.

#include "korlo/core/IniFile.h"
#include "settings/server/UserLayerChange.h"

namespace korlo::settings::server
{

/// Saves changes one by one, for storage to which a change shall cost what it changes, and not the whole user layer. A
/// companion of ISettingsPersister; see SettingsManager::SetChangePersister.
///
/// Thread safety: as ISettingsPersister::SaveUserSettings, with which it takes turns.
class IChangePersister
{
public:
    virtual ~IChangePersister() = default;

    /// Stores a change in addition to what was stored before. When this has thrown, the store hands over the whole
    /// layer the next time, by ISettingsPersister::SaveUserSettings.
    /// @param change empty for one that makes no difference.
    /// @param userSettings the layer with the change in it; only valid during the call.
    virtual void SaveChange(const UserLayerChange& change, const core::IniFile& userSettings) = 0;
};

}  // namespace korlo::settings::server
