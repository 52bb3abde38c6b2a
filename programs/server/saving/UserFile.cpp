#include "saving/UserFile.h"

#include <algorithm>
#include <exception>
#include <filesystem>
#include <string_view>
#include <utility>
#include <vector>

#include "korlo/osa/Exception.h"
#include "korlo/osa/SystemCall.h"
#include "korlo/stl/TextStream.h"
#include "saving/ChangeLog.h"
#include "settings/server/GroupDiscriminator.h"

namespace korlo::daemon
{
namespace
{

namespace fs = std::filesystem;

constexpr std::string_view EmptyLayer = "# no user settings\n";
constexpr std::size_t LeastLimit = 64 * 1024;
constexpr unsigned int NewFileMode = 0640;

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

core::IniFile LayerOf(const std::string& content)
{
    core::IniFile layer;
    layer.LoadFromString(content);
    settings::server::GroupDiscriminator::FilterOutRestrictedGroups(layer);
    return layer;
}

/// What a save of the layer writes: never an empty file, so that one is known to be damaged.
std::string ContentFor(std::string text)
{
    return text.empty() ? std::string(EmptyLayer) : std::move(text);
}

std::string ContentFor(const core::IniFile& layer)
{
    stl::TextStream text;
    layer.SaveToStream(text);
    return ContentFor(std::move(text).str());
}

}  // namespace

/// A log in memory.
///
/// Thread safety: none of its own; it lives within the load.
class UserFile::FoundLog
{
public:
    /// Null where there is none.
    /// @throws osa::Exception when it cannot be read.
    static std::unique_ptr<const FoundLog> Find(const std::string& path, osa::IFileSystem& fileSystem)
    {
        const osa::CrashSafeFile file(path, osa::CrashSafeFile::KeepNone, NewFileMode, fileSystem);
        return file.Exists() ? std::make_unique<const FoundLog>(file.Read()) : nullptr;
    }

    explicit FoundLog(std::string text) : _text(std::move(text)), _log(_text) {}
    FoundLog(const FoundLog&) = delete;
    FoundLog& operator=(const FoundLog&) = delete;

    bool BelongsTo(const std::string& content) const { return _log.GetContent() == ContentMark::Of(content); }
    std::size_t GetBytes() const { return _text.size(); }
    const ChangeLog& Get() const { return _log; }

    /// What the content and this log make.
    core::IniFile LayerOver(const std::string& content) const
    {
        core::IniFile layer = LayerOf(content);
        _log.ApplyTo(layer);
        return layer;
    }

private:
    const std::string _text;
    const ChangeLog _log;
};

UserFile::UserFile(const std::string& path, SaveBy saveBy, osa::IFileSystem& fileSystem)
    : _saveBy(saveBy),
      _fileSystem(fileSystem),
      _file(path, osa::CrashSafeFile::KeepPrevious, NewFileMode, fileSystem),
      _pLogger(core::Logger::GetLogger("FileSettingsPersister")),
      _hasOldLogs(saveBy == SaveBy::Appending),
      _log(fileSystem)
{
}

void UserFile::Prepare()
{
    _file.CheckReplaceable();
    RemoveLeftovers();
}

void UserFile::RemoveLeftovers() const
{
    std::error_code ignored;
    const fs::path path = fs::weakly_canonical(GetPath(), ignored);
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

std::optional<core::IniFile> UserFile::Load()
{
    _hasFile = _file.Exists();
    if (!_hasFile)
    {
        _logPath = LogPathOf(_file);
        _hasOldLogs = true;
        if (osa::CrashSafeFile(_logPath, osa::CrashSafeFile::KeepNone, NewFileMode, _fileSystem).Exists())
        {
            SetAside("foreign", "there is no user file to which it could belong");
        }
        return std::nullopt;
    }
    _pLogger->Trace("Loading user settings from '%s'", GetPath().c_str());
    const std::string content = LoadContent();
    _logPath = LogPathOf(_file);
    return TakeUpLogs(content);
}

std::string UserFile::LoadContent()
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

/// Puts the content that the generation before and its log lead to into the place of a damaged one, so that the next
/// save keeps it and not the damaged one.
std::string UserFile::LoadPrevious(const std::string& damage, bool isUnreadable)
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
        _pLogger->Warning("User settings are taken from '%s~', the generation before: %s", GetPath().c_str(),
                          damage.c_str());
        osa::CrashSafeFile(GetPath(), osa::CrashSafeFile::KeepNone, NewFileMode, _fileSystem)
            .Replace(WithItsLog(previous));
        return _file.Read();
    }
    if (isUnreadable)
    {
        throw osa::Exception("User settings cannot be loaded: %s", damage.c_str());
    }
    if (damage != "it is empty")
    {
        _pLogger->Error("The user settings of '%s' are lost: %s, and there is no generation before", GetPath().c_str(),
                        damage.c_str());
    }
    return std::string();
}

/// The log is the older one, or, where the logs were not turned over, the newer.
std::string UserFile::WithItsLog(const std::string& previous) const
{
    const std::string path = LogPathOf(_file);
    for (const std::string& candidate : {path + '~', path})
    {
        try
        {
            const auto pLog = FoundLog::Find(candidate, _fileSystem);
            if (pLog && pLog->BelongsTo(previous) && !pLog->Get().GetRecords().empty())
            {
                return ContentFor(pLog->LayerOver(previous));
            }
        }
        catch (const osa::Exception& exception)
        {
            _pLogger->Warning("%s", exception.what());
        }
    }
    return previous;
}

core::IniFile UserFile::TakeUpLogs(const std::string& content)
{
    std::unique_ptr<const FoundLog> pLog;
    try
    {
        pLog = FoundLog::Find(_logPath, _fileSystem);
    }
    catch (const osa::Exception& exception)
    {
        SetAside("damaged", exception.what());
    }
    if (pLog && pLog->BelongsTo(content))
    {
        return TakeUp(content, *pLog);
    }
    try
    {
        const auto pOlder = FoundLog::Find(_logPath + '~', _fileSystem);
        _hasOldLogs = pOlder != nullptr;
        if (pOlder && pOlder->BelongsTo(content))
        {
            return TakeUpBoth(content, *pOlder, pLog.get());
        }
    }
    catch (const osa::Exception&)
    {
        _hasOldLogs = true;  // one that cannot be read, and is usually of no use
    }
    if (pLog)
    {
        PutAway(*pLog);
    }
    NoteLoaded(content, nullptr);
    return LayerOf(content);
}

/// The usual case.
core::IniFile UserFile::TakeUp(const std::string& content, const FoundLog& log)
{
    core::IniFile layer = log.LayerOver(content);
    _hasOldLogs = true;
    const bool isDamaged = log.Get().GetEnd() == ChangeLog::Damaged;
    _logs = isDamaged ? Logs::Damaged : Logs::Belong;
    if (isDamaged)
    {
        _pLogger->Warning("'%s' is damaged from line %zu on: what was changed behind that is lost. It is kept as "
                          "'%s.damaged'",
                          _logPath.c_str(), log.Get().GetEndLine(), _logPath.c_str());
    }
    const bool isEmpty = log.Get().GetRecords().empty();
    if (log.Get().GetEnd() != ChangeLog::Whole || (!IsAppending() && !isEmpty))
    {
        FoldAtStart(layer);
    }
    else
    {
        NoteLoaded(content, &log);
    }
    return layer;
}

/// A log that was named as the older one, or two that lead on from each other.
core::IniFile UserFile::TakeUpBoth(const std::string& content, const FoundLog& older, const FoundLog* pNewer)
{
    core::IniFile layer = older.LayerOver(content);
    const std::string next = ContentFor(layer);
    if (pNewer != nullptr && pNewer->BelongsTo(next))
    {
        layer = pNewer->LayerOver(next);
    }
    else if (pNewer != nullptr)
    {
        PutAway(*pNewer);
    }
    _logs = Logs::Spent;
    FoldAtStart(layer);
    return layer;
}

/// A log that does not belong to the content.
void UserFile::PutAway(const FoundLog& log)
{
    if (!log.Get().GetContent())
    {
        if (log.Get().GetEnd() == ChangeLog::Damaged)
        {
            SetAside("damaged", "its first line is damaged");
        }
        else
        {
            Remove(_logPath);  // it was never begun
        }
        return;
    }
    std::string previous;
    try
    {
        previous = _file.ReadPrevious();
    }
    catch (const osa::Exception&)
    {
        // There is none to which it could belong.
    }
    if (log.BelongsTo(previous))
    {
        Rename(_logPath, _logPath + '~');  // a fold did not get as far as this
        _hasOldLogs = true;
    }
    else
    {
        SetAside("foreign", "it belongs to another content than the user file has");
    }
}

void UserFile::SetAside(const char* suffix, const std::string& reason)
{
    const std::string aside = _logPath + '.' + suffix;
    _pLogger->Warning("What was changed in '%s' does not count: %s. It is kept as '%s'", _logPath.c_str(),
                      reason.c_str(), aside.c_str());
    Rename(_logPath, aside);
}

/// Where that fails the next save does it; nothing is appended before.
void UserFile::FoldAtStart(const core::IniFile& layer)
{
    try
    {
        std::string text = ContentFor(layer);
        Fold(text, IsAppending());
        if (!IsAppending())
        {
            _stored = std::move(text);
        }
    }
    catch (const osa::Exception& exception)
    {
        _pLogger->Warning("'%s' is not folded yet: %s", _logPath.c_str(), exception.what());
    }
}

/// What a server left that was killed between its write and its sync can be read, and lost by a power cut all the same.
/// @param pLog null where there is none that can go on.
void UserFile::NoteLoaded(const std::string& content, const FoundLog* pLog)
{
    try
    {
        if (IsAppending() && content.empty())
        {
            _hasFile = false;  // what is there is damaged
        }
        else if (IsAppending() && pLog != nullptr)
        {
            _log.Open(_logPath, pLog->GetBytes());
            _log.Sync();
            _emptyBytes = pLog->Get().GetRecords().empty() ? pLog->GetBytes() : 0;
            _limit = std::max(LeastLimit, content.size());
        }
        else if (IsAppending())
        {
            BeginLog(content);
        }
        else if (pLog != nullptr)
        {
            Remove(_logPath);
            _logs = Logs::Stale;
        }
        _file.Sync();
        if (!IsAppending())
        {
            _stored = content;
        }
    }
    catch (const osa::Exception&)
    {
        _isBehind = true;  // the next save writes the layer, then, whatever its text
    }
}

bool UserFile::SaveLayer(std::string text)
{
    text = ContentFor(std::move(text));
    if (_stored == text)
    {
        return false;
    }
    Fold(text, IsAppending());
    if (!IsAppending())
    {
        _stored = std::move(text);
    }
    return true;
}

bool UserFile::SaveChange(const settings::server::UserLayerChange& change, const TakeText& takeLayer, bool isExact)
{
    if (_isBehind || !_hasFile)
    {
        return SaveLayer(takeLayer());
    }
    if (change.IsEmpty())
    {
        return false;
    }
    _isBehind = true;  // until the record is on the disk
    _log.Write(ChangeLog::RecordOf(change));
    if (_log.GetBytes() > _limit)
    {
        FoldOutgrown(takeLayer, isExact);
    }
    else
    {
        _log.Sync();
        _isBehind = false;
    }
    return true;
}

/// The last record is not synced yet: the new content is, or, where that fails, the record.
void UserFile::FoldOutgrown(const TakeText& takeLayer, bool isExact)
{
    _isTurnedOver = false;
    try
    {
        Fold(isExact ? ContentFor(takeLayer()) : Replay(), true);
    }
    catch (const std::exception& exception)
    {
        if (_isTurnedOver)
        {
            throw;
        }
        _log.Sync();
        _pLogger->Warning("'%s' is not folded yet: %s", _logPath.c_str(), exception.what());
    }
}

/// The content that the user file and its log lead to, for who has no layer that is exactly that.
std::string UserFile::Replay() const
{
    const std::string content = _file.Read();
    const auto pLog = FoundLog::Find(_logPath, _fileSystem);
    if (!pLog || !pLog->BelongsTo(content) || pLog->Get().GetEnd() != ChangeLog::Whole)
    {
        throw osa::Exception("Somebody else has changed '%s' or its log", GetPath().c_str());
    }
    return ContentFor(pLog->LayerOver(content));
}

void UserFile::Finish(const std::string& text)
{
    if (_isBehind || _log.GetBytes() > _emptyBytes)
    {
        Fold(ContentFor(text), false);
    }
    else if (_logs == Logs::Belong)
    {
        _log.Close();
        Remove(_logPath);
    }
}

void UserFile::Fold(const std::string& text, bool beginsLog)
{
    _isBehind = true;
    _stored.reset();
    if (beginsLog && _logPath.empty())
    {
        _logPath = LogPathOf(_file);
    }
    if (_logs == Logs::Stale && _hasOldLogs)
    {
        Remove(_logPath);
        Remove(_logPath + '~');
        _hasOldLogs = false;
    }
    _file.Replace(text, [&] { TurnLogsOver(text, beginsLog); });
    _hasFile = true;
    _isBehind = false;
    _folds += IsAppending() ? 1 : 0;
}

/// Steps 2 and 3.
void UserFile::TurnLogsOver(const std::string& text, bool beginsLog)
{
    _isTurnedOver = true;
    _log.Close();
    const std::string older = _logPath + '~';
    const Logs logs = std::exchange(_logs, Logs::Stale);
    _hasOldLogs = _hasOldLogs || beginsLog || logs != Logs::Stale;
    switch (logs)
    {
    case Logs::Belong:
        Rename(_logPath, older);
        break;
    case Logs::Damaged:
        Rename(_logPath, _logPath + ".damaged");
        Remove(older);
        break;
    case Logs::Spent:
        Remove(older);
        Remove(_logPath);
        break;
    case Logs::Stale:
        break;
    }
    if (beginsLog)
    {
        BeginLog(text);
    }
}

void UserFile::BeginLog(const std::string& content)
{
    _hasOldLogs = true;  // one that is not whole
    _log.Create(_logPath, GetPath());
    _log.Write(ChangeLog::FirstLineFor(ContentMark::Of(content)));
    _emptyBytes = _log.GetBytes();
    _limit = std::max(LeastLimit, content.size());
    _logs = Logs::Belong;
}

void UserFile::Remove(const std::string& path)
{
    osa::Demand("remove", path, [&] {
        const int error = _fileSystem.Unlink(path);
        return error == ENOENT ? 0 : error;
    });
}

void UserFile::Rename(const std::string& from, const std::string& to)
{
    osa::Demand("rename", from, [&] { return _fileSystem.Rename(from, to); });
}

}  // namespace korlo::daemon
