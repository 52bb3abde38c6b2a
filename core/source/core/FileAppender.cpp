#include "core/FileAppender.h"

#include <cerrno>

#include <fcntl.h>
#include <unistd.h>

#include "core/LogLine.h"
#include "korlo/osa/Exception.h"

namespace korlo::core
{
namespace
{

[[noreturn]] void Fail(const std::string& path, int error)
{
    throw osa::Exception("Failed to open log file '%s': %s", path.c_str(), osa::SystemReason(error).c_str());
}

int OpenLogFile(const std::string& path)
{
    if (path.find('\0') != std::string::npos)
    {
        Fail(path, EINVAL);  // the system would take the name of another file
    }
    // Opening must not wait for the reader of a pipe; the writes may.
    int file;
    do
    {
        file = ::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY | O_NONBLOCK, 0640);
    } while (file < 0 && errno == EINTR);
    if (file < 0)
    {
        Fail(path, errno);
    }
    ::fcntl(file, F_SETFL, O_APPEND);
    return file;
}

}  // namespace

FileAppender::FileAppender(const std::string& path) : _file(OpenLogFile(path))
{
}

FileAppender::~FileAppender()
{
    ::close(_file);
}

void FileAppender::Append(const Logger& logger, LogLevel level, const std::string& message)
{
    const std::string line = FormatLogLine(logger, level, message);
    const std::string text = _isCutOff ? '\n' + line : line;
    const std::size_t written = WriteLine(_file, text);
    if (written == text.size())
    {
        _isCutOff = false;
        return;
    }
    _isCutOff = _isCutOff ? written != 1 : written != 0;
    WriteLine(STDERR_FILENO, line);
}

}  // namespace korlo::core
