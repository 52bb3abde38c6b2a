#include "korlo/osa/CrashSafeFile.h"

#include <atomic>
#include <cerrno>
#include <utility>

#include <unistd.h>

#include "ReadWholeFile.h"
#include "korlo/osa/Exception.h"
#include "korlo/osa/SystemCall.h"

namespace korlo::osa
{
namespace
{

std::string FolderOf(const std::string& path)
{
    const std::size_t slash = path.rfind('/');
    if (slash == std::string::npos)
    {
        return ".";
    }
    return path.substr(0, slash == 0 ? 1 : slash);
}

/// No two living processes share a name, nor two calls of one process: so the name that one thread gave up is never one
/// that another has taken meanwhile, and a name which is taken belongs to a file left over by a power cut. Names end in
/// '~' because tools that read whole folders skip such files.
std::string NextNameBeside(const std::string& path)
{
    static std::atomic<unsigned int> counter{0};
    return path + '.' + std::to_string(::getpid()) + '-' + std::to_string(counter.fetch_add(1)) + '~';
}

/// Finds a name beside `path` that nothing has: `take(name)` claims it, or says EEXIST to be asked for the next one.
template <typename Take>
int TakeNameBeside(const std::string& path, std::string& name, Take take)
{
    constexpr int attempts = 1000;

    int error = EEXIST;
    for (int attempt = 0; attempt < attempts && error == EEXIST; ++attempt)
    {
        name = NextNameBeside(path);
        error = Uninterrupted([&] { return take(name); });
    }
    return error;
}

}  // namespace

/// The file that takes the place of another one, or vanishes again.
///
/// Thread safety: none of its own; it lives within one call.
class CrashSafeFile::NewFile
{
public:
    NewFile(IFileSystem& fileSystem, const std::string& place, unsigned int mode)
        : _fileSystem(fileSystem),
          _place(place)
    {
        const auto create = [&](const std::string& name) { return _fileSystem.Create(name, mode, _file); };
        if (const int error = TakeNameBeside(place, _name, create); error != 0)
        {
            FailOn("create a new file beside", place, error);
        }
    }

    NewFile(const NewFile&) = delete;
    NewFile& operator=(const NewFile&) = delete;

    ~NewFile()
    {
        if (_file >= 0)
        {
            _fileSystem.Close(_file);
        }
        if (!_renamed)
        {
            Uninterrupted([&] { return _fileSystem.Unlink(_name); });
        }
    }

    void Write(const std::string& content)
    {
        std::size_t done = 0;
        while (done < content.size())
        {
            std::size_t count = 0;
            Demand("write the new content of", _place,
                   [&] { return _fileSystem.Write(_file, content.data() + done, content.size() - done, count); });
            if (count == 0)
            {
                FailOn("write the new content of", _place, EIO);  // a file that takes nothing would be asked for ever
            }
            done += count;
        }
    }

    /// Gives the file the owner, group and mode of another one, as far as the system permits. What is right already is
    /// not set: where the system forbids to give files away, it forbids that, too.
    void Resemble(const FileStatus& status)
    {
        const std::optional<FileStatus> own = GetOwnStatus();
        const bool hasOwner = own && own->owner == status.owner;
        bool hasGroup = own && own->group == status.group;
        const unsigned int owner = hasOwner ? IFileSystem::KeepOwner : status.owner;
        const unsigned int group = hasGroup ? IFileSystem::KeepOwner : status.group;
        unsigned int mode = status.mode;
        if (!(hasOwner && hasGroup) && !SetOwner(owner, group))
        {
            hasGroup = hasGroup || (!hasOwner && SetOwner(IFileSystem::KeepOwner, group));
            mode &= hasOwner ? 07777u : 0777u;  // what runs as its owner must not run as somebody else
            if (!hasGroup)
            {
                mode = (mode & 0707u) | ((mode & 07u) << 3);  // the rights of one group are not those of another
            }
        }
        if (!own || own->mode != mode)
        {
            Demand("set the mode of the new", _place, [&] { return _fileSystem.SetMode(_file, mode); });
        }
    }

    void SyncAndClose()
    {
        Demand("sync the new content of", _place, [&] { return _fileSystem.Sync(_file); });
        const int error = _fileSystem.Close(std::exchange(_file, -1));
        if (error != 0 && error != EINTR)  // closed it is in any case: a second time could hit another thread's file
        {
            FailOn("close the new content of", _place, error);
        }
    }

    void RenameTo(const std::string& name)
    {
        Demand("rename the new file to", name, [&] { return _fileSystem.Rename(_name, name); });
        _renamed = true;
    }

private:
    std::optional<FileStatus> GetOwnStatus() const
    {
        FileStatus status;
        const int error = Uninterrupted([&] { return _fileSystem.Stat(_name, status); });
        return error == 0 ? std::optional(status) : std::nullopt;
    }

    bool SetOwner(unsigned int owner, unsigned int group) const
    {
        return Uninterrupted([&] { return _fileSystem.SetOwner(_file, owner, group); }) == 0;
    }

    IFileSystem& _fileSystem;
    const std::string _place;
    std::string _name;
    int _file = -1;
    bool _renamed = false;
};

CrashSafeFile::CrashSafeFile(const std::string& path, Generations generations, unsigned int mode,
                             IFileSystem& fileSystem)
    : _path(path),
      _generations(generations),
      _mode(mode),
      _fileSystem(fileSystem)
{
}

// 1. The new content goes to a file of its own, onto the disk.
// 2. The old content gets its second name. The order matters: until step 3 both names hold the old content, so that at
//    no moment there is no whole file under the first one.
// 3. The new file takes the first name.
// 4. The names go onto the disk, those of the files beside it with them.
void CrashSafeFile::Replace(const std::string& content, const std::function<void()>& onReplaced)
{
    const std::string target = ResolveLinks();
    const std::optional<FileStatus> status = GetReplaceable(target);

    // 1. Nobody else may read the new content before its mode is the old one's.
    NewFile newFile(_fileSystem, target, status ? 0600 : _mode);
    Fill(newFile, content, status);
    // 2.
    if (status && _generations == KeepPrevious)
    {
        KeepGeneration(target, *status);
    }
    // 3.
    newFile.RenameTo(target);
    // 4.
    onReplaced();
    SyncFolderOf(target);
}

void CrashSafeFile::Replace(const std::string& content)
{
    Replace(content, [] {});
}

void CrashSafeFile::Sync() const
{
    const std::string target = ResolveLinks();
    int file = -1;
    Demand("open", _path, [&] { return _fileSystem.OpenForReading(target, file); });
    const int error = Uninterrupted([&] { return _fileSystem.Sync(file); });
    _fileSystem.Close(file);
    if (error != 0)
    {
        FailOn("sync", _path, error);
    }
    SyncFolderOf(target);
}

void CrashSafeFile::SyncFolderOf(const std::string& target) const
{
    Demand("sync the folder of", _path, [&] { return _fileSystem.SyncFolder(FolderOf(target)); });
}

void CrashSafeFile::CheckReplaceable() const
{
    const std::string target = ResolveLinks();
    GetReplaceable(target);
    const NewFile vanishing(_fileSystem, target, 0600);
}

std::string CrashSafeFile::Read() const
{
    return core::ReadWholeFile(_path, _fileSystem);
}

std::string CrashSafeFile::ReadPrevious() const
{
    return core::ReadWholeFile(ResolveLinks() + '~', _fileSystem);
}

bool CrashSafeFile::Exists() const
{
    return GetStatus(_path).has_value();
}

/// The path at the end of the symbolic links, which need not exist: a link to nothing says where to put the file.
std::string CrashSafeFile::ResolveLinks() const
{
    constexpr int maxLinks = 40;
    std::string path = _path;
    for (int links = 0; links < maxLinks; ++links)
    {
        std::string target;
        const int error = Uninterrupted([&] { return _fileSystem.ReadLink(path, target); });
        if (error == EINVAL || error == ENOENT)
        {
            return path;
        }
        if (error != 0)
        {
            FailOn("follow the links of", _path, error);
        }
        path = target.starts_with('/') ? target : FolderOf(path).append("/").append(target);
    }
    FailOn("follow the links of", _path, ELOOP);
}

std::optional<FileStatus> CrashSafeFile::GetStatus(const std::string& path) const
{
    FileStatus status;
    const int error = Uninterrupted([&] { return _fileSystem.Stat(path, status); });
    if (error == ENOENT)
    {
        return std::nullopt;
    }
    if (error != 0)
    {
        FailOn("look at", path, error);
    }
    return status;
}

std::optional<FileStatus> CrashSafeFile::GetReplaceable(const std::string& target) const
{
    std::optional<FileStatus> status = GetStatus(target);
    if (status && !status->isRegular)
    {
        throw Exception("Failed to replace '%s': Not a regular file", _path.c_str());
    }
    return status;
}

void CrashSafeFile::Fill(NewFile& newFile, const std::string& content, const std::optional<FileStatus>& likeThis) const
{
    newFile.Write(content);
    if (likeThis)
    {
        newFile.Resemble(*likeThis);
    }
    newFile.SyncAndClose();
}

void CrashSafeFile::KeepGeneration(const std::string& target, const FileStatus& status) const
{
    const std::string previous = target + '~';
    std::string link;
    const auto add = [&](const std::string& name) { return _fileSystem.Link(target, name); };
    if (TakeNameBeside(target, link, add) == 0)
    {
        const int error = Uninterrupted([&] { return _fileSystem.Rename(link, previous); });
        // Whatever became of it: a rename between two links to one file does nothing, and leaves both.
        Uninterrupted([&] { return _fileSystem.Unlink(link); });
        if (error != 0)
        {
            FailOn("keep the previous content of", _path, error);
        }
        return;
    }

    // Not every file system has links, and not every process may make one to a file that it does not own.
    NewFile copy(_fileSystem, target, 0600);
    Fill(copy, core::ReadWholeFile(target, _fileSystem), status);
    copy.RenameTo(previous);
}

}  // namespace korlo::osa
