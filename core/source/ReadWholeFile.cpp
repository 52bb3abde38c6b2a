#include "ReadWholeFile.h"

#include <cerrno>

#include "korlo/osa/Exception.h"

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
        Demand("open", [&] { return _fileSystem.OpenForReading(_path, _file); });
    }

    OpenFile(const OpenFile&) = delete;
    OpenFile& operator=(const OpenFile&) = delete;
    ~OpenFile() { _fileSystem.Close(_file); }

    /// 0 for what tells none.
    std::size_t GetSize() const
    {
        osa::FileStatus status;
        Demand("read", [&] { return _fileSystem.Stat(_path, status); });
        return status.size;
    }

    /// Returns 0 at the end of the file.
    std::size_t Read(char* pBuffer, std::size_t size)
    {
        std::size_t count = 0;
        Demand("read", [&] { return _fileSystem.Read(_file, pBuffer, size, count); });
        return count;
    }

private:
    template <typename Call>
    void Demand(const char* operation, Call call) const
    {
        int error;
        do
        {
            error = call();
        } while (error == EINTR);
        if (error != 0)
        {
            throw osa::Exception("Failed to %s '%s': %s", operation, _path.c_str(), osa::SystemReason(error).c_str());
        }
    }

    osa::IFileSystem& _fileSystem;
    const std::string& _path;
    int _file = -1;
};

}  // namespace

std::string ReadWholeFile(const std::string& path, osa::IFileSystem& fileSystem)
{
    OpenFile file(fileSystem, path);
    // One byte more than the file is said to hold, so that its end is met without a second round; a pipe or a file
    // of /proc says 0 and is read in steps.
    std::string text(file.GetSize() + 1, '\0');
    std::size_t length = 0;
    while (const std::size_t count = file.Read(text.data() + length, text.size() - length))
    {
        length += count;
        if (length == text.size())
        {
            text.resize(text.size() * 2 + 4096);
        }
    }
    text.resize(length);
    return text;
}

}  // namespace korlo::core
