#pragma once
// The system calls that replacing a file, or appending to one, takes, behind an interface.

#include <cstddef>
#include <string>

namespace korlo::osa
{

/// What is asked of a file that is replaced or read.
struct FileStatus
{
    bool isRegular = false;  ///< Neither a folder nor a device, pipe or socket.
    unsigned int owner = 0;  ///< A user's id.
    unsigned int group = 0;  ///< A group's id.
    unsigned int mode = 0;   ///< The permission bits, up to 07777.
    std::size_t size = 0;    ///< Bytes; 0 for what tells none, such as a pipe.
};

/// The system calls that CrashSafeFile is made of, and what appends to files beside it, so that a test can let each of
/// them fail in turn.
///
/// Every operation returns 0, or the error number (errno) that stands in its way; output arguments are set only
/// when it returns 0. EINTR is an answer that callers must expect, and Write may take less than it is given.
///
/// Thread safety: all methods, from any thread.
class IFileSystem
{
public:
    virtual ~IFileSystem() = default;

    /// Makes a new file and opens it for writing; EEXIST when there is anything of that name.
    /// @param mode permission bits, lessened by the process's umask.
    virtual int Create(const std::string& path, unsigned int mode, int& file) = 0;
    /// Follows symbolic links; ENOENT when there is nothing.
    virtual int OpenForReading(const std::string& path, int& file) = 0;
    /// @param count how many bytes there were; 0 at the end of the file.
    virtual int Read(int file, char* pBuffer, std::size_t size, std::size_t& count) = 0;
    /// @param count how many bytes were taken.
    virtual int Write(int file, const char* pData, std::size_t size, std::size_t& count) = 0;
    /// @param owner, group the new ones; KeepOwner leaves one as it is.
    virtual int SetOwner(int file, unsigned int owner, unsigned int group) = 0;
    /// @param mode permission bits, whatever the umask.
    virtual int SetMode(int file, unsigned int mode) = 0;
    /// Returns once what was written is on the disk.
    virtual int Sync(int file) = 0;
    /// Closes the file, even when it returns an error, and even when that is EINTR: never to be repeated.
    virtual int Close(int file) = 0;

    /// Follows symbolic links; ENOENT when there is nothing.
    virtual int Stat(const std::string& path, FileStatus& status) = 0;
    /// @param target what the symbolic link holds; EINVAL when the path is no symbolic link.
    virtual int ReadLink(const std::string& path, std::string& target) = 0;
    /// Gives a file a second name; EEXIST when there is anything of that name.
    virtual int Link(const std::string& existing, const std::string& added) = 0;
    /// Replaces what is at `to`, in one step.
    virtual int Rename(const std::string& from, const std::string& to) = 0;
    /// Removes the name; the file lives as long as it has another, or is open.
    virtual int Unlink(const std::string& path) = 0;
    /// Returns once the folder's names are on the disk. A file system that knows no such thing answers 0.
    virtual int SyncFolder(const std::string& path) = 0;

    /// Opens a file that is there for writing behind its end.
    virtual int OpenForAppending(const std::string& path, int& file);
    /// Returns once what was written is on the disk, with as much about the file as it takes to read it again.
    virtual int SyncData(int file) { return Sync(file); }

    /// For SetOwner.
    static constexpr unsigned int KeepOwner = 0xFFFFFFFFu;
};

/// The system's own. Every file that it opens is closed on exec.
IFileSystem& RealFileSystem();

}  // namespace korlo::osa
