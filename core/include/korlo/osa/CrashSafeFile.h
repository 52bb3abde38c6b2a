#pragma once
// Replacing a file so that a crash, a full disk or a power cut leaves the old content or the new, whole.

#include <functional>
#include <optional>
#include <string>

#include "korlo/osa/FileSystem.h"

namespace korlo::osa
{

/// A file that is always replaced as a whole: the content is written to a new file beside it, synced, and renamed over
/// it, and then the folder is synced.
///
///     CrashSafeFile file("/var/lib/korlo-settings/user.ini", CrashSafeFile::KeepPrevious);
///     file.Replace(text);  // from here on, text survives a power cut; the text before is in "user.ini~"
///
/// The path may be a symbolic link: the file that it points to is replaced, and the link stays. Mode, owner and group
/// of an existing file are kept, and set only where the new file has others; access lists and other attributes are not.
/// Where the system refuses the owner or the group (a process without privileges may not give files away) that is no
/// error, but a file that could not be given its group grants the group it has no more than it grants everybody.
///
/// A power cut while a file is being replaced can leave the unfinished new one behind, as "PATH.PID-NUMBER~".
///
/// Thread safety: all methods, from any thread and process; of several that replace one file at once, the last wins.
class CrashSafeFile
{
public:
    /// What becomes of the content that is replaced.
    enum Generations
    {
        KeepNone,     ///< It is gone.
        KeepPrevious  ///< It stays beside the file, as "PATH~".
    };

    /// Touches nothing yet.
    /// @param mode the permissions of a file that does not exist yet, lessened by the umask.
    /// @param fileSystem borrowed; must outlive this object.
    explicit CrashSafeFile(const std::string& path, Generations generations = KeepNone, unsigned int mode = 0644,
                           IFileSystem& fileSystem = RealFileSystem());

    /// Makes `content` what the file holds; when this returns it survives a power cut. The folder must exist.
    ///
    /// Throws Exception, naming the path and the system's reason, and the file holds what it held before; only when it
    /// is the last step that fails, the sync of the folder, it holds `content` already, for as long as the
    /// power lasts. Throws also when the path names something else than a file, such as a folder or a device. With
    /// KeepPrevious, a failure may leave "PATH~" a copy of the file as it stands.
    void Replace(const std::string& content);

    /// The same, for files beside this one that belong to its content: they change their names with it.
    /// @param onReplaced called once the file holds `content`, before the folder is synced; what it does to names in
    ///        that folder is synced with it. What it throws passes out, as a failure of the last step.
    void Replace(const std::string& content, const std::function<void()>& onReplaced);

    /// Throws what Replace would throw for a path or a folder in which nothing can be replaced, and changes nothing: a
    /// new file is made beside the file, and removed again.
    void CheckReplaceable() const;

    /// Makes what the file holds survive a power cut, whoever wrote it and however far. Throws Exception, naming the
    /// path and the system's reason.
    void Sync() const;

    /// What the file holds. Throws Exception, naming the path and the system's reason.
    std::string Read() const;

    /// What the file held before the latest Replace with KeepPrevious. Throws as Read.
    std::string ReadPrevious() const;

    /// False when there is nothing of that name, or a symbolic link to nothing. Throws Exception when that cannot be
    /// found out.
    bool Exists() const;

    /// As it was given to the constructor.
    const std::string& GetPath() const { return _path; }

    /// The path at the end of the symbolic links, which need not exist: what is replaced. Throws Exception when they
    /// cannot be followed.
    std::string GetTarget() const { return ResolveLinks(); }

private:
    class NewFile;

    std::string ResolveLinks() const;
    std::optional<FileStatus> GetReplaceable(const std::string& target) const;
    void SyncFolderOf(const std::string& target) const;
    std::optional<FileStatus> GetStatus(const std::string& path) const;
    void Fill(NewFile& newFile, const std::string& content, const std::optional<FileStatus>& likeThis) const;
    void KeepGeneration(const std::string& target, const FileStatus& status) const;

    const std::string _path;
    const Generations _generations;
    const unsigned int _mode;
    IFileSystem& _fileSystem;
};

}  // namespace korlo::osa
