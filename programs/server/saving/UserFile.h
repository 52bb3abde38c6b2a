#pragma once
// The user layer on the disk: its file, the log beside it, and the generation before.

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "SaveRecord.h"
#include "korlo/core/IniFile.h"
#include "korlo/core/Logger.h"
#include "korlo/osa/CrashSafeFile.h"
#include "saving/AppendedFile.h"
#include "settings/server/UserLayerChange.h"

namespace korlo::daemon
{

/// How changes of the user layer come to the disk.
enum class SaveBy
{
    Replacing,  ///< The user file is replaced by each of them.
    Appending   ///< Each is a record in a log, which is folded into the user file now and then.
};

/// Keeps the user layer in a file. What a save has returned from survives a power cut.
///
/// Beside the user file lie "PATH.log", what was changed since (see ChangeLog), and the generation before: "PATH~" and
/// "PATH.log~". Folding makes the next generation:
///
///     step                                     PATH   PATH.log         PATH~   PATH.log~
///     before                                   C      log of C         B       log of B
///     1. the new content takes the name        D      log of C         C       log of B
///     2. the log becomes the previous one      D      -                C       log of C
///     3. a new log begins                      D      log of D         C       log of C
///     4. the folder is synced                  D      log of D         C       log of C
///
/// D is C with its log, to the byte, unless a save has failed before: so C and its log make up for a D that is damaged,
/// and the log of D follows them. A log is known by its first line, so that it counts whatever it is named, for the
/// content that it belongs to and no other. The same content may come back, though: B and D may be equal. That is why
///
///   - "PATH.log~" is looked at only when "PATH.log" does not belong to the content (the state behind step 1, in which
///     both logs, one after the other, lead back to D);
///   - logs that belong to nothing any more are removed before step 1: a stale one could fit what is to come.
///
/// Replacing is folding without step 3, and a layer that is folded at the start or the end of a server has no log then,
/// either. A change that meets the folding is in the log as well, which is what D is made of, but not synced there: the
/// new content is. Only when the folding fails, the log is synced for it, and the next save folds.
///
/// After a write or a sync that has failed nothing is appended; the next save folds.
///
/// A damaged content (unreadable, empty, nothing but zero bytes) costs nothing while the generation before has its log,
/// and else that one generation. A missing file is an empty layer, whatever lies beside it: so an operator resets a
/// device. That is why the first save writes the user file, and no log does.
///
/// Thread safety: none of its own; the owner guards it.
class UserFile
{
public:
    /// Gives the user layer as INI text.
    using TakeText = std::function<std::string()>;

    /// @param path empty for none: then nothing but GetPath may be called.
    /// @param fileSystem borrowed.
    UserFile(const std::string& path, SaveBy saveBy, osa::IFileSystem& fileSystem);

    const std::string& GetPath() const { return _file.GetPath(); }
    bool IsAppending() const { return _saveBy == SaveBy::Appending; }

    /// Where the log of a user file lies.
    static std::string LogPathOf(const osa::CrashSafeFile& file) { return file.GetTarget() + ".log"; }

    /// Removes what saves that were cut short have left, and makes sure that there can be a next one.
    /// @throws osa::Exception naming the path and the reason.
    void Prepare();

    /// The layer, without restricted groups; nothing where there is no user file. Folds a log that is cut or damaged,
    /// or that this way of saving does not continue.
    /// @throws osa::Exception naming the path and the reason.
    std::optional<core::IniFile> Load();

    /// Writes the whole layer. False when it is stored already, which is known of a layer that was replaced or loaded.
    /// @throws osa::Exception naming the path and the reason; the next save then writes, whatever its text.
    bool SaveLayer(std::string text);

    /// Appends a change to the log, or has the layer written in its place where it must be. False when there was
    /// nothing to do. Only for saving by appending.
    /// @param takeLayer gives the whole layer, with the change and perhaps later ones.
    /// @param isExact that it has no later ones.
    /// @throws osa::Exception naming the path and the reason; the next save then writes the whole layer.
    bool SaveChange(const settings::server::UserLayerChange& change, const TakeText& takeLayer, bool isExact);

    /// True when a save has failed, and none went well after it.
    bool IsBehind() const { return _isBehind; }

    /// Folds what the log holds; the last save. Only for saving by appending.
    /// @param text the layer.
    /// @throws osa::Exception naming the path and the reason.
    void Finish(const std::string& text);

    /// How long the content is that is known to be stored; 0 for none.
    std::size_t GetStoredBytes() const { return _stored ? _stored->size() : 0; }

    SaveRecord::LogFigures GetLogFigures() const { return {_log.GetBytes(), _limit, _folds}; }

private:
    class FoundLog;

    /// What is to become of the logs once the next content has its name.
    enum class Logs
    {
        Belong,   ///< "PATH.log" belongs to the content: it becomes the previous one.
        Damaged,  ///< The same, but it is damaged: it is kept aside.
        Spent,    ///< Both have led to the layer: they go.
        Stale     ///< If there are any, they belong to nothing: they go before.
    };

    std::string LoadContent();
    std::string LoadPrevious(const std::string& damage, bool isUnreadable);
    std::string WithItsLog(const std::string& previous) const;
    core::IniFile TakeUpLogs(const std::string& content);
    core::IniFile TakeUp(const std::string& content, const FoundLog& log);
    core::IniFile TakeUpBoth(const std::string& content, const FoundLog& older, const FoundLog* pNewer);
    void PutAway(const FoundLog& log);
    void SetAside(const char* suffix, const std::string& reason);
    void FoldAtStart(const core::IniFile& layer);
    void NoteLoaded(const std::string& content, const FoundLog* pLog);

    void FoldOutgrown(const TakeText& takeLayer, bool isExact);
    std::string Replay() const;
    void Fold(const std::string& text, bool beginsLog);
    void TurnLogsOver(const std::string& text, bool beginsLog);
    void BeginLog(const std::string& content);
    void Remove(const std::string& path);
    void Rename(const std::string& from, const std::string& to);
    void RemoveLeftovers() const;

    const SaveBy _saveBy;
    osa::IFileSystem& _fileSystem;
    osa::CrashSafeFile _file;
    core::Logger* const _pLogger;  // not owned

    std::string _logPath;
    Logs _logs = Logs::Stale;
    bool _hasOldLogs = false;     // where they are stale: there may be any
    AppendedFile _log;            // open while changes may be appended
    std::size_t _emptyBytes = 0;  // of it: as long as it is not longer it has no record
    std::size_t _limit = 0;       // of it
    std::size_t _folds = 0;
    bool _hasFile = false;               // there is a user file to which a log can belong
    bool _isBehind = false;              // the disk may lack what was to be saved: nothing is appended
    bool _isTurnedOver = false;          // the latest fold got as far as step 2
    std::optional<std::string> _stored;  // what the file holds for certain; only for saving by replacing
};

}  // namespace korlo::daemon
