#pragma once
// Storage for tests of the store.

#include <functional>
#include <vector>

#include "korlo/core/IniFile.h"
#include "settings/server/GroupDiscriminator.h"
#include "settings/server/IChangePersister.h"
#include "settings/server/IRestrictedSettingsLoader.h"
#include "settings/server/ISettingsPersister.h"

namespace korlo::settings::server
{

/// Storage in memory. What is saved is what the next load gives, so a second store over the same persister is a reload.
/// The functions, where set, are called first and may throw, as a full disk does. A store may tell it what was changed.
///
/// Thread safety: none of its own; it relies on what the store promises to its persister.
class RecordingPersister : public ISettingsPersister, public IChangePersister
{
public:
    void LoadDefaultSettings(SettingsCombiner& combiner) override
    {
        if (beforeLoadDefaults)
        {
            beforeLoadDefaults();
        }
        for (const core::IniFile& document : defaults)
        {
            combiner.LoadFromIni(document);
        }
    }

    void LoadUserSettings(SettingsCombiner& combiner) override
    {
        if (beforeLoadUser)
        {
            beforeLoadUser();
        }
        combiner.LoadFromIni(user);
        _layer = user;
        GroupDiscriminator::FilterOutRestrictedGroups(_layer);  // as the store does
    }

    void SaveUserSettings(const core::IniFile& userSettings) override
    {
        if (beforeSave)
        {
            beforeSave();
        }
        user = userSettings;
        _layer = userSettings;
        ++saveCount;
    }

    void SaveChange(const UserLayerChange& change, const core::IniFile&) override
    {
        core::IniFile layer = _layer;
        change.ApplyTo(layer);
        SaveUserSettings(layer);
    }

    std::vector<core::IniFile> defaults;  // in the order in which they override one another
    core::IniFile user;
    int saveCount = 0;

    std::function<void()> beforeLoadDefaults;
    std::function<void()> beforeLoadUser;
    std::function<void()> beforeSave;

private:
    core::IniFile _layer;  // the store's, as far as it was told
};

/// The trusted source, in memory.
///
/// Thread safety: none of its own; the owner guards it.
class RecordingRestrictedLoader : public IRestrictedSettingsLoader
{
public:
    void LoadRestrictedSettings(SettingsCombiner& combiner) override
    {
        ++loadCount;
        for (const core::IniFile& document : documents)
        {
            combiner.LoadFromIni(document);
        }
    }

    std::vector<core::IniFile> documents;
    int loadCount = 0;
};

}  // namespace korlo::settings::server
