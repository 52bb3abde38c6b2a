#pragma once
// How the store reaches its storage.

#include "korlo/core/IniFile.h"
#include "settings/server/SettingsCombiner.h"

namespace korlo::settings::server
{

/// Loads the defaults and the user layer, and saves the user layer. Implemented by whoever owns a SettingsManager.
///
/// What it throws passes through the store to the caller of the operation; a change whose save throws stays made in
/// memory and is not announced.
///
/// Thread safety: the store calls it from the threads of its callers: LoadUserSettings once, SaveUserSettings one call
/// at a time, LoadDefaultSettings one call at a time, but in a restore possibly during a SaveUserSettings. It must not
/// call back into the same store.
class ISettingsPersister
{
public:
    virtual ~ISettingsPersister() = default;

    /// Hands every source of defaults to the combiner, in the order in which they are to override one another.
    virtual void LoadDefaultSettings(SettingsCombiner& combiner) = 0;

    /// Hands what was saved before to the combiner.
    virtual void LoadUserSettings(SettingsCombiner& combiner) = 0;

    /// Stores the whole user layer in place of what was stored before.
    virtual void SaveUserSettings(const core::IniFile& userSettings) = 0;
};

}  // namespace korlo::settings::server
