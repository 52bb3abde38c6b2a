#include "saving/AppendedFile.h"

#include <cerrno>
#include <utility>

#include "korlo/osa/SystemCall.h"

namespace korlo::daemon
{

void AppendedFile::Create(const std::string& path, const std::string& likeThis)
{
    constexpr unsigned int ownerOnly = 0600;
    Close();
    int file = -1;
    osa::Demand("create", path, [&] { return _fileSystem.Create(path, ownerOnly, file); });
    _file = file;
    _path = path;
    _bytes = 0;
    TakeRightsOf(likeThis);
}

/// Who may read the other file may read this one. That is of no weight to who cannot be told, so nothing here fails.
void AppendedFile::TakeRightsOf(const std::string& likeThis)
{
    constexpr unsigned int readingAndWriting = 0666;
    osa::FileStatus other;
    osa::FileStatus own;
    const auto look = [this](const std::string& path, osa::FileStatus& status) {
        return osa::Uninterrupted([&] { return _fileSystem.Stat(path, status); }) == 0;
    };
    if (look(likeThis, other) && look(_path, own) && own.owner == other.owner && own.group == other.group)
    {
        osa::Uninterrupted([&] { return _fileSystem.SetMode(_file, other.mode & readingAndWriting); });
    }
}

void AppendedFile::Open(const std::string& path, std::size_t bytes)
{
    Close();
    int file = -1;
    osa::Demand("open", path, [&] { return _fileSystem.OpenForAppending(path, file); });
    _file = file;
    _path = path;
    _bytes = bytes;
}

void AppendedFile::Write(const std::string& text)
{
    std::size_t done = 0;
    while (done < text.size())
    {
        std::size_t count = 0;
        osa::Demand("write to", _path,
                    [&] { return _fileSystem.Write(_file, text.data() + done, text.size() - done, count); });
        if (count == 0)
        {
            osa::FailOn("write to", _path, EIO);  // a file that takes nothing would be asked for ever
        }
        done += count;
        _bytes += count;
    }
}

void AppendedFile::Sync()
{
    osa::Demand("sync", _path, [this] { return _fileSystem.SyncData(_file); });
}

void AppendedFile::Close()
{
    if (IsOpen())
    {
        _fileSystem.Close(std::exchange(_file, -1));  // what was synced is safe, whatever this returns
    }
}

}  // namespace korlo::daemon
