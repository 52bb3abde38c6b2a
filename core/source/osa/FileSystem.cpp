#include "korlo/osa/FileSystem.h"

#include <cerrno>
#include <cstdio>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace korlo::osa
{
namespace
{

int ErrorOf(long result)
{
    return result < 0 ? errno : 0;
}

/// The system calls, one each, with nothing retried and nothing hidden.
///
/// Thread safety: all methods, from any thread; it has no state.
class PosixFileSystem : public IFileSystem
{
public:
    int Create(const std::string& path, unsigned int mode, int& file) override
    {
        return Open(path, O_WRONLY | O_CREAT | O_EXCL, static_cast<mode_t>(mode), file);
    }

    int OpenForReading(const std::string& path, int& file) override { return Open(path, O_RDONLY, 0, file); }

    int Read(int file, char* pBuffer, std::size_t size, std::size_t& count) override
    {
        return Transferred(::read(file, pBuffer, size), count);
    }

    int Write(int file, const char* pData, std::size_t size, std::size_t& count) override
    {
        return Transferred(::write(file, pData, size), count);
    }

    int SetOwner(int file, unsigned int owner, unsigned int group) override
    {
        return ErrorOf(::fchown(file, static_cast<uid_t>(owner), static_cast<gid_t>(group)));
    }

    int SetMode(int file, unsigned int mode) override { return ErrorOf(::fchmod(file, static_cast<mode_t>(mode))); }

    int Sync(int file) override { return ErrorOf(::fsync(file)); }

    int Close(int file) override { return ErrorOf(::close(file)); }

    int Stat(const std::string& path, FileStatus& status) override
    {
        struct stat found;
        if (::stat(path.c_str(), &found) != 0)
        {
            return errno;
        }
        status = {S_ISREG(found.st_mode), found.st_uid, found.st_gid, found.st_mode & 07777u,
                  static_cast<std::size_t>(found.st_size)};
        return 0;
    }

    int ReadLink(const std::string& path, std::string& target) override
    {
        std::string buffer(128, '\0');
        for (;;)
        {
            const ssize_t length = ::readlink(path.c_str(), buffer.data(), buffer.size());
            if (length < 0)
            {
                return errno;
            }
            if (static_cast<std::size_t>(length) < buffer.size())
            {
                target.assign(buffer, 0, static_cast<std::size_t>(length));
                return 0;
            }
            buffer.resize(buffer.size() * 2);  // it may have been cut
        }
    }

    int Link(const std::string& existing, const std::string& added) override
    {
        return ErrorOf(::link(existing.c_str(), added.c_str()));
    }

    int Rename(const std::string& from, const std::string& to) override
    {
        return ErrorOf(std::rename(from.c_str(), to.c_str()));
    }

    int Unlink(const std::string& path) override { return ErrorOf(::unlink(path.c_str())); }

    int SyncFolder(const std::string& path) override
    {
        int folder = -1;
        if (const int error = Open(path, O_RDONLY | O_DIRECTORY, 0, folder); error != 0)
        {
            return error;
        }
        const int error = Sync(folder);
        Close(folder);
        return error == EINVAL || error == ENOTSUP ? 0 : error;
    }

    int OpenForAppending(const std::string& path, int& file) override
    {
        return Open(path, O_WRONLY | O_APPEND, 0, file);
    }

    int SyncData(int file) override { return ErrorOf(::fdatasync(file)); }

private:
    static int Open(const std::string& path, int flags, mode_t mode, int& file)
    {
        const int descriptor = ::open(path.c_str(), flags | O_CLOEXEC, mode);
        if (descriptor < 0)
        {
            return errno;
        }
        file = descriptor;
        return 0;
    }

    static int Transferred(ssize_t result, std::size_t& count)
    {
        if (result < 0)
        {
            return errno;
        }
        count = static_cast<std::size_t>(result);
        return 0;
    }
};

}  // namespace

int IFileSystem::OpenForAppending(const std::string&, int&)
{
    return ENOTSUP;
}

IFileSystem& RealFileSystem()
{
    static IFileSystem& fileSystem = *new PosixFileSystem;  // never destroyed: globals may save when they go
    return fileSystem;
}

}  // namespace korlo::osa
