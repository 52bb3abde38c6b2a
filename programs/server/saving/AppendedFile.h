#pragma once
// A file that only grows.

#include <cstddef>
#include <string>

#include "korlo/osa/FileSystem.h"

namespace korlo::daemon
{

/// Writes behind the end of one file at a time, and closes it when it goes. After a write or a sync that has failed
/// nobody knows what the file holds behind the last sync that went well: it must not be written to any more.
///
/// Thread safety: none of its own; the owner guards it.
class AppendedFile
{
public:
    /// @param fileSystem borrowed.
    explicit AppendedFile(osa::IFileSystem& fileSystem) : _fileSystem(fileSystem) {}
    AppendedFile(const AppendedFile&) = delete;
    AppendedFile& operator=(const AppendedFile&) = delete;
    ~AppendedFile() { Close(); }

    /// Makes the file, for its owner alone, or with the rights of another file where both have one owner and group.
    /// @throws osa::Exception naming the path and the reason; also when it exists. No file is open then.
    void Create(const std::string& path, const std::string& likeThis);

    /// @param bytes how many it holds.
    /// @throws osa::Exception naming the path and the reason; no file is open then.
    void Open(const std::string& path, std::size_t bytes);

    /// @throws osa::Exception naming the path and the reason. Part of the text may have been written.
    void Write(const std::string& text);

    /// Returns when everything that was written is on the disk.
    /// @throws osa::Exception naming the path and the reason.
    void Sync();

    void Close();

    bool IsOpen() const { return _file >= 0; }

    /// With all that was written.
    std::size_t GetBytes() const { return _bytes; }

private:
    void TakeRightsOf(const std::string& likeThis);

    osa::IFileSystem& _fileSystem;
    std::string _path;
    int _file = -1;
    std::size_t _bytes = 0;
};

}  // namespace korlo::daemon
