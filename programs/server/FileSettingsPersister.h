#pragma once
// The store's storage in files.

#include <string>

#include "LoadedFiles.h"
#include "SaveRecord.h"
#include "SettingsFiles.h"
#include "korlo/core/Logger.h"
#include "korlo/osa/FileSystem.h"
#include "korlo/osa/Mutex.h"
#include "saving/UserFile.h"
#include "settings/server/IChangePersister.h"
#include "settings/server/ISettingsPersister.h"

namespace korlo::daemon
{

/// Keeps the user layer in a UserFile, and reads the defaults from files. A save is on the disk when it returns; one of
/// what is stored already writes nothing.
///
/// By replacing, it is the store's ISettingsPersister. By appending, it is its IChangePersister as well, and what is
/// handed over as a whole layer is folded.
///
/// Thread safety: as ISettingsPersister; what saves, and GetRecord, from any thread. Saves take turns.
class FileSettingsPersister : public settings::server::ISettingsPersister, public settings::server::IChangePersister
{
public:
    using TakeText = UserFile::TakeText;

    /// @param userPath where the user layer is; empty for none: nothing is loaded or saved.
    /// @param fileSystem borrowed.
    /// @param pLoaded hears of each file that is loaded; borrowed, may be null.
    FileSettingsPersister(const SettingsFiles& defaults, const std::string& userPath,
                          osa::IFileSystem& fileSystem = osa::RealFileSystem(), LoadedFiles* pLoaded = nullptr,
                          SaveBy saveBy = SaveBy::Replacing);

    /// Removes what saves that were cut short have left, and makes sure that the user layer can be saved: its folder
    /// exists and takes new files.
    /// @throws osa::Exception naming the path and the reason.
    void Prepare();

    /// @throws osa::Exception naming the file that cannot be read, and the reason.
    void LoadDefaultSettings(settings::server::SettingsCombiner& combiner) override;
    void LoadUserSettings(settings::server::SettingsCombiner& combiner) override;

    /// @throws osa::Exception naming the path and the reason; the next save then writes, whatever its text.
    void SaveUserSettings(const core::IniFile& userSettings) override;

    /// Only for saving by appending.
    /// @throws osa::Exception as SaveUserSettings.
    void SaveChange(const settings::server::UserLayerChange& change, const core::IniFile& userSettings) override;

    /// The same, of changes that were gathered while others went on to be made.
    /// @param takeText gives the whole layer, with these changes and perhaps later ones.
    void SaveGathered(const settings::server::UserLayerChange& change, const TakeText& takeText)
        KORLO_EXCLUDES(_saveMutex);

    /// Saves a user layer that is INI text already.
    /// @param takeText what it throws counts as a save that failed, and passes out.
    /// @throws osa::Exception as SaveUserSettings.
    void Save(const TakeText& takeText) KORLO_EXCLUDES(_saveMutex);

    /// For a store that hands over each change at once: returns when everything that it has handed over is on the disk,
    /// what a save that failed has left included.
    /// @param takeText must wait for a change that is being made.
    /// @throws osa::Exception with the reason, also when there is no file to save to.
    void SaveWhatIsUnsaved(const TakeText& takeText) KORLO_EXCLUDES(_saveMutex);

    /// The last call, when nothing is changed any more: folds the log, so that the user file holds everything.
    /// @throws osa::Exception naming the path and the reason.
    void Finish(const TakeText& takeText) KORLO_EXCLUDES(_saveMutex);

    /// False where there is no file to save to.
    bool Saves() const { return !_userPath.empty(); }

    SaveBy GetSaveBy() const { return _saveBy; }

    const SaveRecord& GetRecord() const { return _record; }

private:
    template <typename Write>
    void Attempt(Write write) KORLO_REQUIRES(_saveMutex);
    void SaveChange(const settings::server::UserLayerChange& change, const TakeText& takeText, bool isExact)
        KORLO_EXCLUDES(_saveMutex);
    void Load(const char* kind, const std::string& path, core::IniFile document,
              settings::server::SettingsCombiner& combiner) const;

    const SettingsFiles _defaults;
    const std::string _userPath;
    const SaveBy _saveBy;
    core::Logger* const _pLogger;  // not owned
    LoadedFiles* const _pLoaded;   // borrowed, may be null
    SaveRecord _record;

    osa::Mutex _saveMutex;  // held while the disk works; a change that is saved takes it inside the store's lock
    UserFile _file KORLO_GUARDED_BY(_saveMutex);
};

}  // namespace korlo::daemon
