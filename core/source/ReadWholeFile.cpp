#include "ReadWholeFile.h"

#include <algorithm>
#include <cerrno>

#include "korlo/osa/Exception.h"
#include "korlo/osa/SystemCall.h"

namespace korlo::core
{
namespace
{

/// A file that is open for reading.
///
/// Thread safety: none of its own; it lives within one call.
class OpenFile
{
public:
    OpenFile(osa::IFileSystem& fileSystem, const std::string& path) : _fileSystem(fileSystem), _path(path)
    {
        osa::Demand("open", _path, [&] { return _fileSystem.OpenForReading(_path, _file); });
    }

    OpenFile(const OpenFile&) = delete;
    OpenFile& operator=(const OpenFile&) = delete;
    ~OpenFile() { _fileSystem.Close(_file); }

    /// Returns 0 at the end of the file.
    std::size_t Read(char* pBuffer, std::size_t size)
    {
        std::size_t count = 0;
        osa::Demand("read", _path, [&] { return _fileSystem.Read(_file, pBuffer, size, count); });
        return count;
    }

private:
    osa::IFileSystem& _fileSystem;
    const std::string& _path;
    int _file = -1;
};

}  // namespace

std::string ReadWholeFile(const std::string& path, osa::IFileSystem& fileSystem, std::size_t mostBytes)
{
    constexpr std::size_t smallBytes = 4096;

    OpenFile file(fileSystem, path);
    std::string text(smallBytes, '\0');
    std::size_t length = 0;
    while (const std::size_t count = file.Read(text.data() + length, text.size() - length))
    {
        length += count;
        if (length > mostBytes)
        {
            throw osa::Exception("Failed to read '%s': it holds more than %zu bytes", path.c_str(), mostBytes);
        }
        if (length == text.size())
        {
            // As much as the file is said to hold, and a byte more to meet its end; of a pipe or a file of /proc, which
            // say 0, twice as much as there was.
            osa::FileStatus status;
            const bool isKnown = fileSystem.Stat(path, status) == 0 && status.size >= text.size();
            text.resize(std::min(isKnown ? status.size : text.size() * 2, mostBytes) + 1);
        }
    }
    text.resize(length);
    return text;
}

}  // namespace korlo::core
