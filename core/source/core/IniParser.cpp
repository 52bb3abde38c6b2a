#include "core/IniParser.h"

#include <algorithm>
#include <cstring>

namespace korlo::core
{
namespace
{

constexpr std::string_view ByteOrderMark = "\xEF\xBB\xBF";

/// Blank, tab, vertical tab, form feed and carriage return: lines that end in "\r\n" need no rule of their own.
bool IsBlank(char c)
{
    return c == ' ' || (c >= '\t' && c <= '\r');
}

void TrimFront(std::string_view& text)
{
    while (!text.empty() && IsBlank(text.front()))
    {
        text.remove_prefix(1);
    }
}

void TrimBack(std::string_view& text)
{
    while (!text.empty() && IsBlank(text.back()))
    {
        text.remove_suffix(1);
    }
}

int HexDigit(char c)
{
    if (c >= '0' && c <= '9')
    {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f')
    {
        return c - 'a' + 10;
    }
    return c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
}

/// The quote that ends a token, after its first quote; npos if there is none.
std::size_t FindClosingQuote(std::string_view text)
{
    for (std::size_t at = 0; at < text.size(); ++at)
    {
        if (text[at] == '"')
        {
            return at;
        }
        if (text[at] == '\\')
        {
            ++at;
        }
    }
    return std::string_view::npos;
}

/// Appends what the escape at the front of `text` (after its backslash) stands for and steps over it.
bool AppendEscape(std::string_view& text, std::string& out)
{
    const char kind = text.empty() ? '\0' : text.front();
    std::size_t length = 1;
    switch (kind)
    {
    case '\\':
    case '"':
        out += kind;
        break;
    case 'n':
        out += '\n';
        break;
    case 'r':
        out += '\r';
        break;
    case 't':
        out += '\t';
        break;
    case 'x': {
        const int high = text.size() > 2 ? HexDigit(text[1]) : -1;
        const int low = text.size() > 2 ? HexDigit(text[2]) : -1;
        if (high < 0 || low < 0)
        {
            return false;
        }
        out += static_cast<char>(high * 16 + low);
        length = 3;
        break;
    }
    default:
        return false;
    }
    text.remove_prefix(length);
    return true;
}

}  // namespace

IniParser::IniParser(std::string_view text, IIniSink& sink) : _text(text), _sink(sink)
{
    if (_text.starts_with(ByteOrderMark))
    {
        _text.remove_prefix(ByteOrderMark.size());
    }
}

void IniParser::Run()
{
    const char* pLine = _text.data();
    const char* const pEnd = pLine + _text.size();
    while (pLine != pEnd)
    {
        const auto remaining = static_cast<std::size_t>(pEnd - pLine);
        const auto* pNewline = static_cast<const char*>(std::memchr(pLine, '\n', remaining));
        const std::size_t length = pNewline == nullptr ? remaining : static_cast<std::size_t>(pNewline - pLine);
        ++_lineNumber;
        ParseLine(std::string_view(pLine, length));
        pLine += pNewline == nullptr ? length : length + 1;
    }
}

// Without the blanks at its ends, and by its first character, a line is
//
//   line                             | in a group          | before the first group, or after a bad header
//   ---------------------------------+---------------------+----------------------------------------------
//   nothing, or behind a '#' or ';'  | skipped             | skipped
//   [name] or ["name"]               | the group ends, the next begins
//   [ and anything else              | bad, and ends it    | bad
//   key=value, either in quotes      | a value             | bad: its group is unknown
//   anything else                    | bad                 | bad
//
// A bad header ends the group before it, since the keys below it must not land in a group that they were not meant for.
void IniParser::ParseLine(std::string_view line)
{
    TrimFront(line);
    TrimBack(line);
    if (line.empty() || line.front() == '#' || line.front() == ';')
    {
        return;
    }
    if (line.front() == '[')
    {
        ParseHeader(line);
    }
    else if (_inGroup)
    {
        ParsePair(line);
    }
    else
    {
        Reject("it stands under no readable [group] line");
    }
}

void IniParser::ParseHeader(std::string_view line)
{
    _inGroup = false;  // until the header turns out to be readable
    line.remove_prefix(1);
    TrimFront(line);
    std::string_view name;
    if (!line.empty() && line.front() == '"')
    {
        const auto quoted = TakeQuoted(line);
        if (!quoted)
        {
            return;
        }
        name = *quoted;
    }
    else
    {
        const std::size_t length = std::min(line.find(']'), line.size());
        name = line.substr(0, length);
        line.remove_prefix(length);
        TrimBack(name);
    }
    if (line != "]")
    {
        Reject(line.empty() ? "the group name has no closing ']'" : "there is text after the group name");
        return;
    }
    _inGroup = true;
    _sink.OnGroup(name);
}

void IniParser::ParsePair(std::string_view line)
{
    const auto key = TakeKey(line);
    if (!key)
    {
        return;
    }
    TrimFront(line);
    if (line.empty() || line.front() != '"')
    {
        _sink.OnValue(*key, line);  // as it stands: a '#', a '=' or a backslash in an unquoted value is text
        return;
    }
    const auto value = TakeQuoted(line);
    if (value && !line.empty())
    {
        Reject("there is text after the closing quote of the value");
    }
    else if (value)
    {
        _sink.OnValue(*key, *value);
    }
}

/// Takes the key and the '=' off the front of the line.
std::optional<std::string_view> IniParser::TakeKey(std::string_view& line)
{
    std::string_view key;  // plain: a key that is trimmed inside an optional costs a seventh of a whole load
    if (line.starts_with('"'))
    {
        const auto quoted = TakeQuoted(line);
        if (!quoted)
        {
            return {};
        }
        if (!line.starts_with('='))
        {
            Reject("there is no '=' after the key");
            return {};
        }
        key = *quoted;
    }
    else
    {
        const auto* pEquals = static_cast<const char*>(std::memchr(line.data(), '=', line.size()));
        if (pEquals == nullptr)
        {
            Reject("it is neither a [group] nor a key=value line");
            return {};
        }
        const auto length = static_cast<std::size_t>(pEquals - line.data());
        key = line.substr(0, length);
        line.remove_prefix(length);
        TrimBack(key);
        if (key.empty())
        {
            Reject("there is no key before the '='");
            return {};
        }
    }
    line.remove_prefix(1);
    return key;
}

/// Takes a quoted token and the blanks behind it off the front of the line, which begins with its quote.
std::optional<std::string_view> IniParser::TakeQuoted(std::string_view& line)
{
    line.remove_prefix(1);
    const std::size_t length = FindClosingQuote(line);
    if (length == std::string_view::npos)
    {
        Reject("a quote is not closed");
        return {};
    }
    std::string_view token = line.substr(0, length);
    line.remove_prefix(length + 1);
    TrimFront(line);
    if (token.find('\\') == std::string_view::npos)
    {
        return token;
    }
    bool valid = true;
    token = Unescape(token, valid);
    if (!valid)
    {
        Reject("a backslash in quotes is not followed by one of \\ \" n r t xHH");
        return {};
    }
    return token;
}

std::string_view IniParser::Unescape(std::string_view escaped, bool& valid)
{
    std::string text;
    text.reserve(escaped.size());
    while (!escaped.empty() && valid)
    {
        const std::size_t plain = std::min(escaped.find('\\'), escaped.size());
        text.append(escaped.substr(0, plain));
        escaped.remove_prefix(plain);
        if (!escaped.empty())
        {
            escaped.remove_prefix(1);
            valid = AppendEscape(escaped, text);
        }
    }
    return _unescaped.emplace_back(std::move(text));
}

void IniParser::Reject(const char* reason)
{
    _sink.OnBadLine(_lineNumber, reason);
}

}  // namespace korlo::core
