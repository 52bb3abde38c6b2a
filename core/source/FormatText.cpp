#include "FormatText.h"

#include <array>
#include <cstdio>

namespace korlo::core
{

std::string FormatText(const char* format, va_list args)
{
    std::array<char, 256> buffer;
    va_list again;
    va_copy(again, args);
    const int length = std::vsnprintf(buffer.data(), buffer.size(), format, again);
    va_end(again);
    if (length < 0)
    {
        return format;  // an argument that cannot be converted: the format still says what was meant
    }
    if (static_cast<std::size_t>(length) < buffer.size())
    {
        return std::string(buffer.data(), static_cast<std::size_t>(length));
    }

    std::string text(static_cast<std::size_t>(length), '\0');
    va_copy(again, args);
    std::vsnprintf(text.data(), text.size() + 1, format, again);
    va_end(again);
    return text;
}

}  // namespace korlo::core
