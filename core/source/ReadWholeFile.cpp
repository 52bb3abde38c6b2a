#include "ReadWholeFile.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "korlo/osa/Exception.h"

namespace korlo::core
{
namespace
{

class Descriptor
{
public:
    explicit Descriptor(int descriptor) : _descriptor(descriptor) {}
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    ~Descriptor()
    {
        if (_descriptor >= 0)
        {
            close(_descriptor);
        }
    }

    int Get() const { return _descriptor; }

private:
    int _descriptor;
};

[[noreturn]] void Fail(const char* verb, const char* path)
{
    const int error = errno;
    throw osa::Exception("Failed to %s '%s': %s", verb, path, std::strerror(error));
}

void CheckSize(const char* path, std::size_t size, std::size_t mostBytes)
{
    if (size > mostBytes)
    {
        throw osa::Exception("Failed to read '%s': it holds more than %zu bytes", path, mostBytes);
    }
}

}  // namespace

std::string ReadWholeFile(const char* path, std::size_t mostBytes)
{
    if (path == nullptr)
    {
        throw osa::Exception("Path was NULL");
    }
    const Descriptor file(open(path, O_RDONLY | O_CLOEXEC));
    if (file.Get() < 0)
    {
        Fail("open", path);
    }
    struct stat status = {};
    if (fstat(file.Get(), &status) != 0)
    {
        Fail("read", path);
    }
    if (S_ISREG(status.st_mode))
    {
        CheckSize(path, static_cast<std::size_t>(status.st_size), mostBytes);
    }
    // One byte more than the file is said to hold, so that its end is met without a second round; a pipe or a file
    // of /proc says 0 and is read in steps.
    std::string text(static_cast<std::size_t>(status.st_size) + 1, '\0');
    std::size_t length = 0;
    for (;;)
    {
        const ssize_t got = read(file.Get(), text.data() + length, text.size() - length);
        if (got < 0 && errno != EINTR)
        {
            Fail("read", path);
        }
        if (got == 0)
        {
            break;
        }
        length += got < 0 ? 0 : static_cast<std::size_t>(got);
        CheckSize(path, length, mostBytes);
        if (length == text.size())
        {
            text.resize(text.size() * 2 + 4096);
        }
    }
    text.resize(length);
    return text;
}

}  // namespace korlo::core
