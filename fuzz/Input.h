#pragma once
// The bytes that a fuzzer is given.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace korlo::fuzz
{

/// Hands the input out from its beginning: small numbers that steer a run, then the text.
///
/// Thread safety: none of its own; the owner guards it.
class Input
{
public:
    /// @param data borrowed; must outlive this object.
    Input(const std::uint8_t* data, std::size_t size) : _left(reinterpret_cast<const char*>(data), size) {}

    bool IsEmpty() const { return _left.empty(); }

    /// The next byte, 0 after the end.
    unsigned int TakeByte()
    {
        if (_left.empty())
        {
            return 0;
        }
        const auto byte = static_cast<unsigned char>(_left.front());
        _left.remove_prefix(1);
        return byte;
    }

    /// The next line without its line break; all that is left when there is no line break.
    std::string TakeLine()
    {
        const std::string_view line = _left.substr(0, _left.find('\n'));
        _left.remove_prefix(line.size() + (line.size() < _left.size() ? 1 : 0));
        return std::string(line);
    }

    std::string TakeRest()
    {
        const std::string rest(_left);
        _left = {};
        return rest;
    }

private:
    std::string_view _left;
};

}  // namespace korlo::fuzz
