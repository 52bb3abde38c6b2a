#pragma once
// Numbers in text that people and other programs write.

#include <charconv>
#include <optional>
#include <string_view>
#include <system_error>

namespace korlo
{

/// The number when the whole text is one that the type can hold: digits, after a minus sign if it may be negative.
template <typename Number>
std::optional<Number> NumberIn(std::string_view text, int base = 10)
{
    Number number = 0;
    // cppcheck-suppress danglingTemporaryLifetime ; a number keeps nothing of the text
    const std::from_chars_result result = std::from_chars(text.data(), text.data() + text.size(), number, base);
    const bool isWhole = result.ec == std::errc() && result.ptr == text.data() + text.size();
    return isWhole ? std::optional(number) : std::nullopt;
}

}  // namespace korlo
