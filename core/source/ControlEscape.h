#pragma once
// Control characters in text that is for one line.

#include <array>
#include <cstddef>
#include <string_view>

namespace korlo::core
{

constexpr bool IsControl(char character)
{
    return static_cast<unsigned char>(character) < 0x20 || character == '\x7F';
}

/// A control character as `\n`, `\r`, `\t` or `\xHH`.
///
/// Thread safety: none of its own; the owner guards it.
class ControlEscape
{
public:
    /// @param digits the sixteen of HH.
    constexpr ControlEscape(char character, std::string_view digits)
    {
        switch (character)
        {
        case '\n':
            _text[1] = 'n';
            break;
        case '\r':
            _text[1] = 'r';
            break;
        case '\t':
            _text[1] = 't';
            break;
        default:
            const auto byte = static_cast<unsigned char>(character);
            _text = {'\\', 'x', digits[byte >> 4], digits[byte & 15]};
            _size = _text.size();
        }
    }

    constexpr std::string_view Get() const { return {_text.data(), _size}; }

private:
    std::array<char, 4> _text{'\\'};
    std::size_t _size = 2;
};

}  // namespace korlo::core
