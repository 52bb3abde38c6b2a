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
    const char* const pEnd = text.data() + text.size();
    const auto [pRest, error] = std::from_chars(text.data(), pEnd, number, base);
    return error == std::errc() && pRest == pEnd ? std::optional(number) : std::nullopt;
}

}  // namespace korlo
