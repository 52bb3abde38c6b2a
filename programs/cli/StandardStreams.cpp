#include "StandardStreams.h"

#include <cerrno>

#include <fcntl.h>
#include <unistd.h>

#include "Failure.h"
#include "korlo/osa/Exception.h"

namespace korlo::settings::cli
{
namespace
{

/// Returns 0 or the error number.
int WriteAll(int descriptor, std::string_view text)
{
    while (!text.empty())
    {
        const ssize_t written = ::write(descriptor, text.data(), text.size());
        if (written >= 0)
        {
            text.remove_prefix(static_cast<std::size_t>(written));
        }
        else if (errno != EINTR)
        {
            return errno;
        }
    }
    return 0;
}

}  // namespace

void HoldStandardDescriptors()
{
    for (int descriptor = STDIN_FILENO; descriptor <= STDERR_FILENO; ++descriptor)
    {
        if (::fcntl(descriptor, F_GETFD) == -1)
        {
            // The lowest free number is this one. Opened the wrong way round, so that using it fails as before.
            ::open("/dev/null", descriptor == STDIN_FILENO ? O_WRONLY : O_RDONLY);
        }
    }
}

void WriteOutput(std::string_view text)
{
    const int error = WriteAll(STDOUT_FILENO, text);
    if (error == EPIPE)
    {
        throw OutputClosed();
    }
    if (error != 0)
    {
        throw Failure(StatusUnusable, "failed to write to standard output: " + osa::SystemReason(error));
    }
}

std::string Escaped(std::string_view text)
{
    constexpr std::string_view digits = "0123456789ABCDEF";
    std::string escaped;
    for (const char c : text)
    {
        const auto byte = static_cast<unsigned char>(c);
        const bool isControl = byte < 0x20 || byte == 0x7F;
        escaped += isControl ? std::string("\\x") + digits[byte / 16] + digits[byte % 16] : std::string(1, c);
    }
    return escaped;
}

void WriteMessage(std::string_view message)
{
    WriteAll(STDERR_FILENO, "korlo-settings: " + Escaped(message) + '\n');
}

std::string ReadInput()
{
    std::string text;
    for (std::string piece = ReadPieceOfInput(); !piece.empty(); piece = ReadPieceOfInput())
    {
        text += piece;
    }
    return text;
}

std::string ReadPieceOfInput()
{
    std::string piece(16384, '\0');
    ssize_t length = 0;
    do
    {
        length = ::read(STDIN_FILENO, piece.data(), piece.size());
    } while (length < 0 && errno == EINTR);
    if (length < 0)
    {
        throw Failure(StatusUnusable, "failed to read standard input: " + osa::SystemReason(errno));
    }
    piece.resize(static_cast<std::size_t>(length));
    return piece;
}

}  // namespace korlo::settings::cli
