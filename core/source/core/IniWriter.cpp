#include "core/IniWriter.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "ControlEscape.h"

namespace korlo::core
{
namespace
{

// Eight bytes are looked at in one step: every token of every saved document passes through here.
using Word = std::uint64_t;
constexpr Word Ones = 0x0101010101010101u;
constexpr Word LowBits = 0x7F7F7F7F7F7F7F7Fu;
constexpr Word HighBits = 0x8080808080808080u;

/// Marks the high bit of what no plain token may hold: control characters and the one sign, an ASCII character, that
/// would be misread in its place. A byte above a marked one may be marked by mistake, so that the result says for
/// certain only whether there is any.
constexpr Word Misread(Word word, char sign)
{
    const Word below0x20 = word - Ones * 0x20;
    const Word is0x7F = (word & LowBits) + Ones;
    const Word isSign = (word ^ (Ones * static_cast<unsigned char>(sign))) - Ones;
    return (below0x20 | is0x7F | isSign) & ~word & HighBits;
}

constexpr char NoSign = '\x7F';  // a control character: no plain token may hold it anyway

/// Copies a token of up to seven bytes; false if plain text cannot carry it.
bool CopyShort(std::string_view token, char sign, char* pTarget)
{
    Word word = Ones * ' ';  // the bytes that the token does not fill must be plain
    for (const char c : token)
    {
        *pTarget++ = c;
        word = word << 8 | static_cast<unsigned char>(c);
    }
    return Misread(word, sign) == 0;
}

/// Copies a token and looks at its bytes on the way; false if plain text cannot carry it. All of it is copied in any
/// case: a branch for each word costs more than the rest of a token that is not plain.
inline bool CopyPlain(std::string_view token, char sign, char* pTarget)
{
    if (token.size() < sizeof(Word))
    {
        return CopyShort(token, sign, pTarget);
    }
    const auto step = [&](std::size_t at) {
        Word word = 0;
        std::memcpy(&word, token.data() + at, sizeof(word));
        std::memcpy(pTarget + at, &word, sizeof(word));
        return Misread(word, sign);
    };
    const std::size_t last = token.size() - sizeof(Word);
    Word misread = step(last);  // may overlap the step before
    for (std::size_t at = 0; at < last; at += sizeof(Word))
    {
        misread |= step(at);
    }
    return misread == 0;
}

/// The same question without the copy, for the rare token that is longer than the buffer.
bool IsPlain(std::string_view token, char sign)
{
    return std::none_of(token.begin(), token.end(), [sign](char c) { return c == sign || IsControl(c); });
}

/// A token that begins or ends so that reading would trim it or take it for a quoted one.
bool HasOddEnds(std::string_view token)
{
    return !token.empty() && (token.front() == ' ' || token.back() == ' ' || token.front() == '"');
}

/// A key that reading would not find, or take for a header or a comment.
bool IsOddKey(std::string_view key)
{
    return key.empty() || HasOddEnds(key) || key.front() == '[' || key.front() == '#' || key.front() == ';';
}

}  // namespace

void IniWriter::WriteGroup(std::string_view name, const IniFile::KeyValueMap& values)
{
    _text.Append('[');
    AppendToken(name, ']', HasOddEnds(name));
    _text.Append("]\n");
    for (const auto& [key, value] : values)
    {
        if (!AppendPlainLine(key, value))
        {
            AppendToken(key, '=', IsOddKey(key));
            _text.Append('=');
            AppendToken(value, NoSign, HasOddEnds(value));
            _text.Append('\n');
        }
    }
}

/// Nearly every line: short, and both tokens plain. False, with nothing appended, for any other.
bool IniWriter::AppendPlainLine(std::string_view key, std::string_view value)
{
    if (IsOddKey(key) || HasOddEnds(value))
    {
        return false;
    }
    const std::size_t size = key.size() + value.size() + 2;
    char* const pKey = _text.Reserve(size);
    if (pKey == nullptr || !CopyPlain(key, '=', pKey))
    {
        return false;
    }
    char* const pValue = pKey + key.size() + 1;
    if (!CopyPlain(value, NoSign, pValue))
    {
        return false;
    }
    pValue[-1] = '=';
    pValue[value.size()] = '\n';
    _text.Advance(size);
    return true;
}

void IniWriter::AppendToken(std::string_view token, char sign, bool isOdd)
{
    char* const pTarget = isOdd ? nullptr : _text.Reserve(token.size());
    if (pTarget != nullptr && CopyPlain(token, sign, pTarget))
    {
        _text.Advance(token.size());
    }
    else if (pTarget == nullptr && !isOdd && IsPlain(token, sign))
    {
        _text.Append(token);
    }
    else
    {
        AppendQuoted(token);  // over what was copied, which is not counted
    }
}

void IniWriter::AppendQuoted(std::string_view token)
{
    _text.Append('"');
    for (const char c : token)
    {
        AppendEscaped(c);
    }
    _text.Append('"');
}

void IniWriter::AppendEscaped(char c)
{
    if (IsControl(c))
    {
        _text.Append(ControlEscape(c, "0123456789ABCDEF").Get());
        return;
    }
    if (c == '\\' || c == '"')
    {
        _text.Append('\\');
    }
    _text.Append(c);
}

}  // namespace korlo::core
