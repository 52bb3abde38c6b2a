#pragma once
// The PHP array form of settings as one would first write it down: over a whole text in memory, a position, plain maps.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <map>
#include <string>
#include <string_view>

namespace korlo::fuzz
{

/// Reads one array from the beginning of a text.
///
/// Thread safety: none of its own; the owner guards it.
class PhpArrayModel
{
public:
    using Groups = std::map<std::string, std::map<std::string, std::string>>;

    enum class Outcome
    {
        Whole,      // the array ended
        CutOff,     // the text ended first
        Malformed,  // whatever came after the text would change nothing
    };

    /// @param text borrowed; must outlive this object.
    explicit PhpArrayModel(std::string_view text) : _text(text) { Read(); }

    Outcome GetOutcome() const { return _outcome; }

    /// How much of the text the array took.
    std::size_t GetLength() const { return _position; }

    /// What was read, up to the fault if there is one.
    const Groups& GetGroups() const { return _groups; }

    /// What a reader that meets the end of the text here has to say; empty when the array is whole.
    const std::string& GetMessage() const { return _message; }

    /// The text that is written for the groups.
    static std::string TextOf(const Groups& groups)
    {
        std::string text = "a:" + std::to_string(groups.size()) + ":{";
        for (const auto& [name, values] : groups)
        {
            text += TextOf(name) + "a:" + std::to_string(values.size()) + ":{";
            for (const auto& [key, value] : values)
            {
                text += TextOf(key) + TextOf(value);
            }
            text += "}";
        }
        return text + "}\n\n";
    }

private:
    static std::string TextOf(const std::string& bytes)
    {
        return "s:" + std::to_string(bytes.size()) + ":\"" + bytes + "\";";
    }

    static bool IsSpace(char character)
    {
        return std::string_view(" \t\n\v\f\r").find(character) != std::string_view::npos;
    }

    static bool IsDigit(char character) { return character >= '0' && character <= '9'; }

    // Each step returns false once there is a fault, and then nothing more is read.

    bool Read()
    {
        std::uint32_t groups = 0;
        if (!ArrayHeader(groups))
        {
            return false;
        }
        for (; groups > 0; --groups)
        {
            if (!Group())
            {
                return false;
            }
        }
        return Character('}');
    }

    bool Group()
    {
        std::string name;
        if (!String(name))
        {
            return false;
        }
        std::map<std::string, std::string>& values = _groups[name];
        std::uint32_t keys = 0;
        if (!ArrayHeader(keys))
        {
            return false;
        }
        for (; keys > 0; --keys)
        {
            std::string key;
            std::string value;
            if (!String(key) || !String(value))
            {
                return false;
            }
            values[key] = value;
        }
        return Character('}');
    }

    bool ArrayHeader(std::uint32_t& count)
    {
        return Character('a') && Character(':') && Number(count) && Character(':') && Character('{');
    }

    bool String(std::string& bytes)
    {
        std::uint32_t length = 0;
        return Character('s') && Character(':') && Number(length) && Character(':') && Character('"') &&
               Bytes(length, bytes) && Character('"') && Character(';');
    }

    bool Character(char expected)
    {
        SkipSpace();
        if (_position == _text.size())
        {
            return Fail(Outcome::CutOff, std::string("phparray missing data (expected '") + expected + "')");
        }
        const char found = _text[_position++];
        if (found != expected)
        {
            return Fail(Outcome::Malformed, std::string("expected: '") + expected + "' but got: '" + found + "'");
        }
        return true;
    }

    /// As the standard streams read an unsigned number: a sign is taken, and a minus counts down from zero.
    bool Number(std::uint32_t& number)
    {
        SkipSpace();
        std::size_t end = _position;
        const bool hasSign = end < _text.size() && (_text[end] == '+' || _text[end] == '-');
        const bool isNegative = hasSign && _text[end] == '-';
        end += hasSign ? 1 : 0;
        std::uint64_t value = 0;
        const std::size_t first = end;
        for (; end < _text.size() && IsDigit(_text[end]); ++end)
        {
            const auto digit = static_cast<std::uint64_t>(_text[end] - '0');
            value = std::min<std::uint64_t>(value * 10 + digit, std::uint64_t{1} << 40);  // far too large either way
        }
        const bool isReadable = end > first && value <= std::numeric_limits<std::uint32_t>::max();
        const bool mayGoOn = end == _text.size();
        _position = end;
        number = static_cast<std::uint32_t>(isNegative ? 0 - value : value);
        if (!isReadable)
        {
            return Fail(mayGoOn ? Outcome::CutOff : Outcome::Malformed, "failed to read size specification");
        }
        return true;
    }

    bool Bytes(std::uint32_t length, std::string& bytes)
    {
        constexpr std::size_t pieceBytes = 255;
        bytes = _text.substr(_position, length);
        _position += bytes.size();
        if (bytes.size() < length)
        {
            const std::size_t missing = length - bytes.size() / pieceBytes * pieceBytes;
            return Fail(Outcome::CutOff,
                        "phparray failed to read " + std::to_string(missing) + " characters for string");
        }
        return true;
    }

    void SkipSpace()
    {
        while (_position < _text.size() && IsSpace(_text[_position]))
        {
            ++_position;
        }
    }

    bool Fail(Outcome outcome, std::string message)
    {
        _outcome = outcome;
        _message = std::move(message);
        return false;
    }

    const std::string_view _text;
    std::size_t _position = 0;
    Groups _groups;
    Outcome _outcome = Outcome::Whole;
    std::string _message;
};

}  // namespace korlo::fuzz
