#include "FileSettingsPersister.h"

#include <algorithm>
#include <cstdint>
#include <exception>
#include <filesystem>
#include <string_view>
#include <utility>
#include <vector>

#include "korlo/osa/Exception.h"
#include "korlo/stl/TextStream.h"
#include "settings/server/GroupDiscriminator.h"

namespace korlo::daemon
{
namespace
{

namespace fs = std::filesystem;

constexpr std::string_view EmptyLayer = "# no user settings\n";

bool IsWithoutContent(const std::string& text)
{
    return text.find_first_not_of('\0') == std::string::npos;
}

/// "NAME.PID-NUMBER~": a new file that did not get as far as taking the place of the old one.
bool IsLeftover(const std::string& candidate, const std::string& name)
{
    const auto endOfNumber = [&candidate](std::size_t begin) {
        return std::min(candidate.find_first_not_of("0123456789", begin), candidate.size());
    };
    const std::size_t process = name.size() + 1;
    const std::size_t hyphen = endOfNumber(process);
    const std::size_t tilde = endOfNumber(hyphen + 1);
    return candidate.starts_with(name + '.') && hyphen > process && candidate.substr(hyphen, 1) == "-" &&
           tilde > hyphen + 1 && candidate.substr(tilde) == "~";
}

}  // namespace

FileSettingsPersister::FileSettingsPersister(const SettingsFiles& defaults, const std::string& userPath,
                                             osa::IFileSystem& fileSystem, LoadedFiles* pLoaded)
    : _defaults(defaults),
      _fileSystem(fileSystem),
      _file(userPath, osa::CrashSafeFile::KeepPrevious, 0640, fileSystem),
      _pLogger(core::Logger::GetLogger("FileSettingsPersister")),
      _pLoaded(pLoaded)
{
}

void FileSettingsPersister::Prepare()
{
    if (Saves())
    {
        _file.CheckReplaceable();
        RemoveLeftovers();
    }
}

void FileSettingsPersister::RemoveLeftovers() const
{
    std::error_code ignored;
    const fs::path path = fs::weakly_canonical(_file.GetPath(), ignored);
    std::vector<fs::path> leftovers;
    for (fs::directory_iterator entry(path.parent_path(), ignored), end; !ignored && entry != end;
         entry.increment(ignored))
    {
        if (IsLeftover(entry->path().filename().string(), path.filename().string()))
        {
            leftovers.push_back(entry->path());
        }
    }
    for (const fs::path& leftover : leftovers)
    {
        fs::remove(leftover, ignored);
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
    core::IniFile document;
    if (_file.Exists())
    {
        _pLogger->Trace("Loading user settings from '%s'", _file.GetPath().c_str());
        const std::string text = ReadUserLayer();
        document.LoadFromString(text);
        NoteStored(text);
    }
    Load("user", _file.GetPath(), std::move(document), combiner);
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

/// What a server left that was killed between its rename and its sync can be read, and lost by a power cut all the
/// same.
void FileSettingsPersister::NoteStored(const std::string& text)
{
    const osa::MutexAutoLock lock(&_saveMutex);
    try
    {
        _file.Sync();
        _stored = text;
    }
    catch (const osa::Exception&)
    {
        // The next save writes, then, whatever its text.
    }
}

std::string FileSettingsPersister::ReadUserLayer()
{
    std::string text;
    try
    {
        text = _file.Read();
    }
    catch (const osa::Exception& exception)
    {
        return LoadPrevious(exception.what(), true);
    }
    if (!IsWithoutContent(text))
    {
        return text;
    }
    return LoadPrevious(text.empty() ? "it is empty" : "it holds nothing but zero bytes", false);
}

/// Puts the generation before into the place of a damaged file, so that the next save keeps it and not the damaged one.
std::string FileSettingsPersister::LoadPrevious(const std::string& damage, bool isUnreadable)
{
    std::string previous;
    try
    {
        previous = _file.ReadPrevious();
    }
    catch (const osa::Exception&)
    {
        // There is none, or none that can be read: the same as one without content.
    }
    if (!IsWithoutContent(previous))
    {
        _pLogger->Warning("User settings are taken from '%s~', the generation before: %s", _file.GetPath().c_str(),
                          damage.c_str());
        osa::CrashSafeFile(_file.GetPath(), osa::CrashSafeFile::KeepNone, 0640, _fileSystem).Replace(previous);
        return _file.Read();
    }
    if (isUnreadable)
    {
        throw osa::Exception("User settings cannot be loaded: %s", damage.c_str());
    }
    if (damage != "it is empty")
    {
        _pLogger->Error("The user settings of '%s' are lost: %s, and there is no generation before",
                        _file.GetPath().c_str(), damage.c_str());
    }
    return std::string();
}

void FileSettingsPersister::SaveUserSettings(const core::IniFile& userSettings)
{
    if (!Saves())
    {
        return;
    }
    const osa::MutexAutoLock lock(&_saveMutex);
    constexpr std::size_t growth = 4096;
    const std::size_t roomBytes = _stored ? _stored->size() + growth : 0;
    Attempt([&userSettings, roomBytes] {
        std::string room;  // without it the text is copied several times as it grows
        room.reserve(roomBytes);
        stl::TextStream text(std::move(room));
        userSettings.SaveToStream(text);
        return std::move(text).str();
    });
}

void FileSettingsPersister::Save(const TakeText& takeText)
{
    if (Saves())
    {
        const osa::MutexAutoLock lock(&_saveMutex);
        Attempt(takeText);
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
        Attempt([&text] { return std::move(text); });
    }
    else if (const SaveRecord::Figures figures = _record.GetFigures(); figures.isUnsaved)
    {
        throw osa::Exception("%s", figures.lastFailure.c_str());
    }
}

void FileSettingsPersister::Attempt(const TakeText& takeText)
{
    _record.Begin();
    try
    {
        _record.NoteDone(WriteUnlessStored(takeText()));
    }
    catch (const std::exception& exception)
    {
        _record.NoteFailed(exception.what());
        throw;
    }
}

/// False when nothing had to be written.
bool FileSettingsPersister::WriteUnlessStored(std::string text)
{
    if (text.empty())
    {
        text = EmptyLayer;
    }
    if (_stored == text)
    {
        return false;
    }
    _stored.reset();
    _file.Replace(text);
    _stored = std::move(text);
    return true;
}

}  // namespace korlo::daemon
