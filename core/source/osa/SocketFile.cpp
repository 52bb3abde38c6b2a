#include "osa/SocketFile.h"

#include <cerrno>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "korlo/osa/Exception.h"
#include "korlo/osa/Thread.h"

namespace korlo::osa
{
namespace
{

constexpr unsigned int LockLimitMs = 10'000;
constexpr unsigned int LockPauseMs = 10;

[[noreturn]] void Fail(const std::string& path, const std::string& reason)
{
    throw Exception("Failed to listen on 'unix:%s': %s", path.c_str(), reason.c_str());
}

bool IsSameFile(const struct stat& one, const struct stat& other)
{
    return one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

/// Keeps servers that start at the same path apart, from the look at what is there until the new socket listens. A
/// socket that is bound and does not listen yet refuses connects as one that was left behind does, so that without the
/// lock the second server would remove the socket of the first.
///
/// It is a lock of the file PATH.lock, which is there while a server starts. The system releases the lock of a killed
/// process; the file that it leaves is taken and removed by the next start. It is no lock of the folder, which would
/// leave no file at all: whoever may read a folder may lock it, and keep the server from starting.
///
/// Thread safety: none of its own; it lives and dies on one thread.
class StartLock
{
public:
    explicit StartLock(const std::string& socketPath) : _socketPath(socketPath), _path(socketPath + ".lock")
    {
        const Deadline deadline(LockLimitMs);
        while (!TryToLock())
        {
            if (deadline.RemainingMs() == 0)
            {
                Fail(_socketPath, "another server is starting there: '" + _path + "' is locked");
            }
            Thread::CurrentThread::Sleep(LockPauseMs);
        }
    }

    StartLock(const StartLock&) = delete;
    StartLock& operator=(const StartLock&) = delete;

    /// Removes the file before it is released: who waits for the lock then finds that it has got one of no file.
    ~StartLock()
    {
        unlink(_path.c_str());
        close(_descriptor);
    }

private:
    bool TryToLock()
    {
        _descriptor = open(_path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600);
        if (_descriptor < 0)
        {
            Fail(_socketPath, "'" + _path + "' cannot be made: " + SystemReason(errno) +
                                  "; the folder must be there, and user " + std::to_string(geteuid()) +
                                  " must be allowed to write to it");
        }
        const int error = flock(_descriptor, LOCK_EX | LOCK_NB) == 0 ? 0 : errno;
        struct stat locked = {};
        struct stat there = {};
        const bool isOurs = error == 0 && fstat(_descriptor, &locked) == 0 && lstat(_path.c_str(), &there) == 0 &&
                            IsSameFile(locked, there);
        const bool isLockFile = !isOurs || (S_ISREG(locked.st_mode) && locked.st_size == 0);
        if (!isOurs || !isLockFile)
        {
            close(_descriptor);
        }
        if (!isLockFile)
        {
            Fail(_socketPath, "'" + _path + "' is in the way: it is no empty file");
        }
        if (error != 0 && error != EWOULDBLOCK && error != EINTR)
        {
            Fail(_socketPath, "'" + _path + "' cannot be locked: " + SystemReason(error));
        }
        return isOurs;
    }

    const std::string& _socketPath;
    const std::string _path;
    int _descriptor = -1;
};

const char* KindOf(mode_t mode)
{
    switch (mode & S_IFMT)
    {
    case S_IFREG:
        return "a regular file";
    case S_IFDIR:
        return "a folder";
    case S_IFLNK:
        return "a symbolic link";
    default:
        return "a device or pipe";
    }
}

/// What a client would be told, 0 when it would be connected.
int TryToConnect(const SocketAddress& address)
{
    const int descriptor = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    const int error = descriptor >= 0 && connect(descriptor, address.Get(), address.length) == 0 ? 0 : errno;
    if (descriptor >= 0)
    {
        close(descriptor);
    }
    return error;
}

/// The same, for our own file also where the mode keeps us out: a server that was killed before it had set the rights
/// leaves one that nobody but root may connect to. Its owner may give himself the right anyway.
int TryToConnect(const std::string& path, const SocketAddress& address, const struct stat& found)
{
    int error = TryToConnect(address);
    if (error == EACCES && found.st_uid == geteuid() && chmod(path.c_str(), (found.st_mode & 07777u) | 0200u) == 0)
    {
        error = TryToConnect(address);
        if (error != ECONNREFUSED)
        {
            chmod(path.c_str(), found.st_mode & 07777u);
        }
    }
    return error;
}

/// Removes the socket of a server that is gone.
void ClearPath(const std::string& path, const SocketAddress& address)
{
    struct stat found = {};
    if (lstat(path.c_str(), &found) != 0)
    {
        return;  // nothing there, as a rule; anything else keeps the bind from working as well
    }
    if (!S_ISSOCK(found.st_mode))
    {
        Fail(path,
             std::string("there is ") + KindOf(found.st_mode) + ", which stays; remove it, or choose another path");
    }
    const int error = TryToConnect(path, address, found);
    switch (error)
    {
    case ECONNREFUSED:
        if (unlink(path.c_str()) != 0 && errno != ENOENT)
        {
            Fail(path, "the socket that another server left there cannot be removed: " + SystemReason(errno));
        }
        return;
    case ENOENT:
        return;
    case 0:
    case EAGAIN:      // its queue is full
    case EPROTOTYPE:  // it takes datagrams
        Fail(path, "another server listens there");
    default:
        Fail(path, "whether another server listens there cannot be told: " + SystemReason(error));
    }
}

}  // namespace

std::unique_ptr<SocketFile> SocketFile::Listen(int descriptor, const std::string& path, const SocketFileRights& rights)
{
    std::string reason;
    const SocketAddresses addresses = ResolvePath(path, reason);
    if (addresses.empty())
    {
        Fail(path, reason);
    }
    const StartLock lock(path);
    ClearPath(path, addresses.front());
    // The file gets the mode of the socket, and nobody may write to it until its rights are set. That it does not
    // listen yet is not enough: a connect looks at the mode first, and may find a socket that listens by the time it
    // goes on.
    if (fchmod(descriptor, 0) != 0 || bind(descriptor, addresses.front().Get(), addresses.front().length) != 0)
    {
        Fail(path, SystemReason(errno));
    }
    std::unique_ptr<SocketFile> pFile(new SocketFile(path));
    pFile->SetRights(rights);
    if (listen(descriptor, SOMAXCONN) != 0)
    {
        Fail(path, SystemReason(errno));
    }
    return pFile;
}

SocketFile::SocketFile(const std::string& path) : _path(path)
{
    struct stat made = {};
    if (lstat(path.c_str(), &made) != 0)
    {
        Fail(path, SystemReason(errno));
    }
    _device = made.st_dev;
    _inode = made.st_ino;
}

SocketFile::~SocketFile()
{
    struct stat found = {};
    if (lstat(_path.c_str(), &found) == 0 && found.st_dev == _device && found.st_ino == _inode)
    {
        unlink(_path.c_str());
    }
}

/// The owner first: where the mode lets the group in, it is to be the right one.
void SocketFile::SetRights(const SocketFileRights& rights) const
{
    if (rights.group != SocketFileRights::KeepGroup &&
        lchown(_path.c_str(), static_cast<uid_t>(-1), static_cast<gid_t>(rights.group)) != 0)
    {
        Fail(_path, "it cannot be given to group " + std::to_string(rights.group) + ": " + SystemReason(errno));
    }
    if (chmod(_path.c_str(), static_cast<mode_t>(rights.mode)) != 0)
    {
        Fail(_path, "it cannot be given its mode: " + SystemReason(errno));
    }
}

}  // namespace korlo::osa
