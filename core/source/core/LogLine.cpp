#include "core/LogLine.h"

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <ctime>

#include <unistd.h>

namespace korlo::core
{
namespace
{

const char* NameOf(LogLevel level)
{
    switch (level)
    {
    case LogLevelError:
        return "Error";
    case LogLevelWarning:
        return "Warning";
    case LogLevelInformation:
        return "Information";
    case LogLevelTrace:
        return "Trace";
    }
    return "Message";
}

void AppendEscaped(std::string& line, const std::string& text)
{
    constexpr const char* digits = "0123456789abcdef";
    for (const char character : text)
    {
        const auto byte = static_cast<unsigned char>(character);
        if (byte >= 0x20 && byte != 0x7f)
        {
            line += character;
            continue;
        }
        line += '\\';
        switch (character)
        {
        case '\n':
            line += 'n';
            break;
        case '\r':
            line += 'r';
            break;
        case '\t':
            line += 't';
            break;
        default:
            line += {'x', digits[byte >> 4], digits[byte & 15]};
        }
    }
}

/// Universal time: it never jumps with the seasons, and its calculation needs neither a lock nor a file.
void AppendTime(std::string& line)
{
    namespace chrono = std::chrono;

    timespec now;
    ::clock_gettime(CLOCK_REALTIME, &now);
    const chrono::sys_seconds seconds{chrono::seconds(now.tv_sec)};
    const auto day = chrono::floor<chrono::days>(seconds);
    const chrono::year_month_day date(day);
    const chrono::hh_mm_ss time(seconds - day);

    std::array<char, 40> text;
    std::snprintf(text.data(), text.size(), "%04d-%02u-%02uT%02d:%02d:%02d.%03dZ", static_cast<int>(date.year()),
                  static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
                  static_cast<int>(time.hours().count()), static_cast<int>(time.minutes().count()),
                  static_cast<int>(time.seconds().count()), static_cast<int>(now.tv_nsec / 1000000));
    line += text.data();
}

/// Keeps the SIGPIPE of one write from the process: it is held back, and taken away if it came.
///
/// Thread safety: none of its own; it acts on the thread that makes it.
class SigPipeBlock
{
public:
    SigPipeBlock()
    {
        sigset_t pending;
        sigpending(&pending);
        _wasPending = sigismember(&pending, SIGPIPE) == 1;
        sigemptyset(&_sigPipe);
        sigaddset(&_sigPipe, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &_sigPipe, &_before);
    }

    SigPipeBlock(const SigPipeBlock&) = delete;
    SigPipeBlock& operator=(const SigPipeBlock&) = delete;

    ~SigPipeBlock()
    {
        const timespec noWait{};
        if (_hasCome && !_wasPending)
        {
            while (sigtimedwait(&_sigPipe, nullptr, &noWait) < 0 && errno == EINTR)
            {
            }
        }
        pthread_sigmask(SIG_SETMASK, &_before, nullptr);
    }

    void SetHasCome() { _hasCome = true; }

private:
    sigset_t _sigPipe;
    sigset_t _before;
    bool _wasPending;  // somebody else's: it is not ours to take away
    bool _hasCome = false;
};

}  // namespace

const char* GetProgramName()
{
    return program_invocation_short_name;
}

std::string EscapeControls(const std::string& text)
{
    std::string escaped;
    escaped.reserve(text.size());
    AppendEscaped(escaped, text);
    return escaped;
}

std::string FormatLogLine(const Logger& logger, LogLevel level, const std::string& message)
{
    std::string line;
    line.reserve(96 + logger.GetName().size() + message.size());
    AppendTime(line);
    line += ' ';
    AppendEscaped(line, GetProgramName());
    line += '[' + std::to_string(::getpid()) + "] ";
    line += NameOf(level);
    line += ' ';
    AppendEscaped(line, logger.GetName());
    line += ": ";
    AppendEscaped(line, message);
    line += '\n';
    return line;
}

std::size_t WriteLine(int descriptor, const std::string& line)
{
    SigPipeBlock sigPipe;
    std::size_t done = 0;
    while (done < line.size())
    {
        const ssize_t count = ::write(descriptor, line.data() + done, line.size() - done);
        if (count > 0)
        {
            done += static_cast<std::size_t>(count);
            continue;
        }
        if (count < 0 && errno == EINTR)
        {
            continue;
        }
        if (count < 0 && errno == EPIPE)
        {
            sigPipe.SetHasCome();
        }
        break;  // a full pipe that does not block (EAGAIN) costs the line too: logging must not spin
    }
    return done;
}

}  // namespace korlo::core
