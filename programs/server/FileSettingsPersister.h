#pragma once
// The store's storage in files.

#include <optional>
#include <string>

#include "SettingsFiles.h"
#include "korlo/core/Logger.h"
#include "korlo/osa/CrashSafeFile.h"
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
/// Thread safety: as ISettingsPersister; Save as SaveUserSettings, one call at a time.
class FileSettingsPersister : public settings::server::ISettingsPersister
{
public:
    /// @param userPath where the user layer is; empty for none: nothing is loaded or saved.
    /// @param fileSystem borrowed.
    FileSettingsPersister(const SettingsFiles& defaults, const std::string& userPath,
                          osa::IFileSystem& fileSystem = osa::RealFileSystem());

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
    /// @throws osa::Exception as SaveUserSettings.
    void Save(std::string text);

private:
    bool SavesNothing() const { return _file.GetPath().empty(); }
    void RemoveLeftovers() const;
    std::string Load();
    void NoteStored(const std::string& text);
    std::string LoadPrevious(const std::string& damage, bool isUnreadable);

    const SettingsFiles _defaults;
    osa::IFileSystem& _fileSystem;
    osa::CrashSafeFile _file;
    core::Logger* const _pLogger;  // not owned

    std::optional<std::string> _stored;  // what the file holds for certain
};

}  // namespace korlo::daemon
