#pragma once
// The store's storage in files.

#include <functional>
#include <optional>
#include <string>

#include "LoadedFiles.h"
#include "SaveRecord.h"
#include "SettingsFiles.h"
#include "korlo/core/Logger.h"
#include "korlo/osa/CrashSafeFile.h"
#include "korlo/osa/Mutex.h"
#include "settings/server/ISettingsPersister.h"

namespace korlo::daemon
{

/// Keeps the user layer in one file, with the generation before it beside it as "PATH~", and reads the defaults from
/// files. A save is on the disk when it returns; one whose text is stored already writes nothing.
///
/// What damages the file costs one generation: when it cannot be read, is empty or holds nothing but zero bytes, the
/// generation before is loaded, with a warning, and put in its place. (An empty user layer is saved as a comment, so an
/// empty file is never what was saved.) Where there is no such generation, a file that cannot be read is an error, and
/// a file without content an empty layer. A missing file is an empty layer, whatever lies beside it: so an operator
/// resets a device.
///
/// Thread safety: as ISettingsPersister; Save, SaveWhatIsUnsaved and GetRecord from any thread. Saves take turns.
class FileSettingsPersister : public settings::server::ISettingsPersister
{
public:
    /// Gives the user layer as INI text.
    using TakeText = std::function<std::string()>;

    /// @param userPath where the user layer is; empty for none: nothing is loaded or saved.
    /// @param fileSystem borrowed.
    /// @param pLoaded hears of each file that is loaded; borrowed, may be null.
    FileSettingsPersister(const SettingsFiles& defaults, const std::string& userPath,
                          osa::IFileSystem& fileSystem = osa::RealFileSystem(), LoadedFiles* pLoaded = nullptr);

    /// Removes what saves that were cut short have left, and makes sure that the user layer can be saved: its folder
    /// exists and takes new files.
    /// @throws osa::Exception naming the path and the reason.
    void Prepare();

    /// @throws osa::Exception naming the file that cannot be read, and the reason.
    void LoadDefaultSettings(settings::server::SettingsCombiner& combiner) override;
    void LoadUserSettings(settings::server::SettingsCombiner& combiner) override;

    /// @throws osa::Exception naming the path and the reason; the next save then writes, whatever its text.
    void SaveUserSettings(const core::IniFile& userSettings) override;

    /// Saves a user layer that is INI text already.
    /// @param takeText what it throws counts as a save that failed, and passes out.
    /// @throws osa::Exception as SaveUserSettings.
    void Save(const TakeText& takeText) KORLO_EXCLUDES(_saveMutex);

    /// For a store that hands over each change at once: returns when everything that it has handed over is on the disk,
    /// what a save that failed has left included.
    /// @param takeText must wait for a change that is being made.
    /// @throws osa::Exception with the reason, also when there is no file to save to.
    void SaveWhatIsUnsaved(const TakeText& takeText) KORLO_EXCLUDES(_saveMutex);

    /// False where there is no file to save to.
    bool Saves() const { return !_file.GetPath().empty(); }

    const SaveRecord& GetRecord() const { return _record; }

private:
    void Attempt(const TakeText& takeText) KORLO_REQUIRES(_saveMutex);
    bool WriteUnlessStored(std::string text) KORLO_REQUIRES(_saveMutex);
    void Load(const char* kind, const std::string& path, core::IniFile document,
              settings::server::SettingsCombiner& combiner) const;
    void RemoveLeftovers() const;
    std::string ReadUserLayer();
    void NoteStored(const std::string& text);
    std::string LoadPrevious(const std::string& damage, bool isUnreadable);

    const SettingsFiles _defaults;
    osa::IFileSystem& _fileSystem;
    osa::CrashSafeFile _file;
    core::Logger* const _pLogger;  // not owned
    LoadedFiles* const _pLoaded;   // borrowed, may be null
    SaveRecord _record;

    osa::Mutex _saveMutex;  // held while the disk works; a change that is saved takes it inside the store's lock
    std::optional<std::string> _stored KORLO_GUARDED_BY(_saveMutex);  // what the file holds for certain
};

}  // namespace korlo::daemon
