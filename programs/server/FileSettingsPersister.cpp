#include "FileSettingsPersister.h"

#include <cstdint>
#include <exception>
#include <optional>
#include <utility>

#include "korlo/osa/Exception.h"
#include "korlo/stl/TextStream.h"
#include "settings/server/GroupDiscriminator.h"

namespace korlo::daemon
{
namespace
{

std::string TextOf(const core::IniFile& userSettings, std::string room = std::string())
{
    stl::TextStream text(std::move(room));
    userSettings.SaveToStream(text);
    return std::move(text).str();
}

}  // namespace

FileSettingsPersister::FileSettingsPersister(const SettingsFiles& defaults, const std::string& userPath,
                                             osa::IFileSystem& fileSystem, LoadedFiles* pLoaded, SaveBy saveBy)
    : _defaults(defaults),
      _userPath(userPath),
      _saveBy(saveBy),
      _pLogger(core::Logger::GetLogger("FileSettingsPersister")),
      _pLoaded(pLoaded),
      _file(userPath, saveBy, fileSystem)
{
}

void FileSettingsPersister::Prepare()
{
    if (Saves())
    {
        const osa::MutexAutoLock lock(&_saveMutex);
        _file.Prepare();
    }
}

void FileSettingsPersister::LoadDefaultSettings(settings::server::SettingsCombiner& combiner)
{
    for (const std::string& file : _defaults.Find())
    {
        _pLogger->Trace("Loading default settings from '%s'", file.c_str());
        Load("default", file, core::IniFile(file.c_str()), combiner);
    }
}

void FileSettingsPersister::LoadUserSettings(settings::server::SettingsCombiner& combiner)
{
    if (!Saves())
    {
        return;
    }
    std::optional<core::IniFile> loaded;
    {
        const osa::MutexAutoLock lock(&_saveMutex);
        loaded = _file.Load();
        _record.NoteLog(_file.GetLogFigures());
    }
    Load("user", _userPath, loaded ? std::move(*loaded) : core::IniFile(), combiner);
}

/// Restricted groups stay out here already: a restore, which a client may ask for, takes the defaults as they are.
void FileSettingsPersister::Load(const char* kind, const std::string& path, core::IniFile document,
                                 settings::server::SettingsCombiner& combiner) const
{
    settings::server::GroupDiscriminator::FilterOutRestrictedGroups(document);
    combiner.RunFilters(document);
    combiner.Merge(document);
    if (_pLoaded != nullptr)
    {
        _pLoaded->Add(kind, path, document);
    }
}

void FileSettingsPersister::SaveUserSettings(const core::IniFile& userSettings)
{
    if (!Saves())
    {
        return;
    }
    const osa::MutexAutoLock lock(&_saveMutex);
    Attempt([this, &userSettings]() KORLO_REQUIRES(_saveMutex) {
        constexpr std::size_t growth = 4096;
        std::string room;  // without it the text is copied several times as it grows
        room.reserve(_file.GetStoredBytes() == 0 ? 0 : _file.GetStoredBytes() + growth);
        return _file.SaveLayer(TextOf(userSettings, std::move(room)));
    });
}

void FileSettingsPersister::SaveChange(const settings::server::UserLayerChange& change,
                                       const core::IniFile& userSettings)
{
    SaveChange(
        change, [&userSettings] { return TextOf(userSettings); }, true);
}

void FileSettingsPersister::SaveGathered(const settings::server::UserLayerChange& change, const TakeText& takeText)
{
    SaveChange(change, takeText, false);
}

void FileSettingsPersister::SaveChange(const settings::server::UserLayerChange& change, const TakeText& takeText,
                                       bool isExact)
{
    if (Saves())
    {
        const osa::MutexAutoLock lock(&_saveMutex);
        Attempt([&]() KORLO_REQUIRES(_saveMutex) { return _file.SaveChange(change, takeText, isExact); });
    }
}

void FileSettingsPersister::Save(const TakeText& takeText)
{
    if (Saves())
    {
        const osa::MutexAutoLock lock(&_saveMutex);
        Attempt([&]() KORLO_REQUIRES(_saveMutex) { return _file.SaveLayer(takeText()); });
    }
}

void FileSettingsPersister::Finish(const TakeText& takeText)
{
    if (Saves() && _saveBy == SaveBy::Appending)
    {
        const std::string text = takeText();  // without the mutex, as below
        const osa::MutexAutoLock lock(&_saveMutex);
        _file.Finish(text);
    }
}

/// The text is taken without the mutex, which a change takes inside the store's lock. An attempt of another that began
/// after the first line is one of a later change, and saves everything from before it, too.
void FileSettingsPersister::SaveWhatIsUnsaved(const TakeText& takeText)
{
    if (!Saves())
    {
        throw osa::Exception("there is no file to save to: the server keeps what clients change in memory");
    }
    const std::uint64_t begun = _record.CountBegun();
    std::string text = takeText();
    const osa::MutexAutoLock lock(&_saveMutex);
    // cppcheck-suppress knownConditionTrueFalse ; others save meanwhile
    if (_record.CountBegun() == begun)
    {
        Attempt([&]() KORLO_REQUIRES(_saveMutex) {
            const bool isDue = _saveBy == SaveBy::Replacing || _file.IsBehind();
            return isDue && _file.SaveLayer(std::move(text));
        });
    }
    else if (const SaveRecord::Figures figures = _record.GetFigures(); figures.isUnsaved)
    {
        throw osa::Exception("%s", figures.lastFailure.c_str());
    }
}

/// @param write returns false when nothing had to be written.
template <typename Write>
void FileSettingsPersister::Attempt(Write write)
{
    _record.Begin();
    try
    {
        _record.NoteDone(write());
        _record.NoteLog(_file.GetLogFigures());
    }
    catch (const std::exception& exception)
    {
        _record.NoteFailed(exception.what());
        throw;
    }
}

}  // namespace korlo::daemon
