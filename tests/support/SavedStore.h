#pragma once
// A store over its user file.

#include <ostream>
#include <string>

#include "DelayedPersister.h"
#include "FileSettingsPersister.h"
#include "settings/server/SettingsManager.h"
#include "support/Documents.h"

namespace korlo::daemon
{

/// Both ways of saving, for tests with a parameter.
inline const SaveBy SaveByBoth[] = {SaveBy::Replacing, SaveBy::Appending};

/// For GoogleTest.
inline void PrintTo(SaveBy saveBy, std::ostream* pOut)
{
    *pOut << (saveBy == SaveBy::Appending ? "append" : "replace");
}

/// As the server builds it, without a delay.
///
/// Thread safety: as SettingsManager; Finish belongs to the owner.
struct SavedStore
{
    SavedStore(const std::string& path, SaveBy saveBy, osa::IFileSystem& fileSystem = osa::RealFileSystem(),
               const SettingsFiles& defaults = SettingsFiles({}))
        : files(defaults, path, fileSystem, nullptr, saveBy),
          store(&files, nullptr, nullptr, false)
    {
        store.SetChangePersister(saveBy == SaveBy::Appending ? &files : nullptr);
    }

    void Merge(const std::string& changes) { store.MergeSettings(Ini(changes), 0); }

    /// What is to be saved.
    std::string GetLayer() const { return UserLayerOf(store); }

    void Finish()
    {
        files.Finish([this] { return GetLayer(); });
    }

    FileSettingsPersister files;
    settings::server::SettingsManager store;
};

}  // namespace korlo::daemon
