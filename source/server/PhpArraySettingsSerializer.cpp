#include "server/PhpArraySettingsSerializer.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <limits>
#include <string>
#include <string_view>

#include "korlo/osa/Exception.h"
#include "korlo/stl/GetArea.h"
#include "korlo/stl/tGatheringWriter.h"

namespace korlo::settings::server
{
namespace
{

/// Writes the parts of the form. Call Finish at the end.
///
/// Thread safety: none of its own; lives on the stack of the operation that writes.
class Writer
{
public:
    /// @param out borrowed; must outlive the writer.
    explicit Writer(std::ostream& out) : _text(out) {}

    void WriteString(std::string_view text)
    {
        AppendSize('s', text.size(), '"');
        _text.Append(text);
        _text.Append("\";");
    }

    void BeginArray(std::size_t count) { AppendSize('a', count, '{'); }
    void EndArray() { _text.Append('}'); }

    void Finish()
    {
        _text.Append("\n\n");
        _text.Flush();
    }

private:
    /// Made here and not by the stream, whose locale may group digits and whose flags may ask for hexadecimal.
    void AppendSize(char kind, std::size_t size, char opening)
    {
        constexpr std::size_t mostDigits = std::numeric_limits<std::size_t>::digits10 + 1;
        std::array<char, mostDigits + 4> token = {kind, ':'};
        char* pEnd = std::to_chars(token.data() + 2, token.data() + 2 + mostDigits, size).ptr;
        *pEnd++ = ':';
        *pEnd++ = opening;
        _text.Append(std::string_view(token.data(), static_cast<std::size_t>(pEnd - token.data())));
    }

    stl::tGatheringWriter<2048> _text;
};

// Reading is defined by the stream's operators, with its white space, its flags and its errors. They cost several times
// what the text does: so what lies in the stream's buffer just as it is written is taken from there, and all else is
// left to them.

/// What may be taken past the operators.
std::string_view ReadAhead(const std::istream& in)
{
    const bool readsDecimal = (in.flags() & std::ios_base::basefield) == std::ios_base::dec;
    return in.good() && readsDecimal ? stl::GetArea::Of(*in.rdbuf()) : std::string_view();
}

/// @param pNext what comes next is there, in what was read ahead.
void SkipTo(const std::istream& in, const char* pNext)
{
    stl::GetArea::Skip(*in.rdbuf(), static_cast<std::size_t>(pNext - stl::GetArea::Of(*in.rdbuf()).data()));
}

/// Takes such as `a:12:{` off the front of the text; false if there is anything else.
bool TakeSize(std::string_view& text, char kind, char opening, unsigned int& size)
{
    if (text.size() < 2 || text[0] != kind || text[1] != ':')
    {
        return false;
    }
    const auto number = std::from_chars(text.data() + 2, text.data() + text.size(), size);
    text.remove_prefix(static_cast<std::size_t>(number.ptr - text.data()));
    if (number.ec != std::errc() || text.size() < 2 || text[0] != ':' || text[1] != opening)
    {
        return false;
    }
    text.remove_prefix(2);
    return true;
}

void Expect(std::istream& in, char expected)
{
    char found = '\0';
    if (!(in >> found))
    {
        throw osa::Exception("phparray missing data (expected '%c')", expected);
    }
    if (found != expected)
    {
        throw osa::Exception("expected: '%c' but got: '%c'", expected, found);
    }
}

unsigned int ReadSize(std::istream& in)
{
    unsigned int size = 0;
    if (!(in >> size))
    {
        throw osa::Exception("failed to read size specification");
    }
    return size;
}

/// Reads in small pieces and keeps what has come: a length of thousands of millions costs nothing before its bytes are
/// there.
std::string ReadBytes(std::istream& in, unsigned int missing)
{
    std::array<char, 255> chunk;
    std::string text;
    while (missing > 0)
    {
        const unsigned int count = std::min<unsigned int>(missing, chunk.size());
        if (!in.read(chunk.data(), static_cast<std::streamsize>(count)))
        {
            throw osa::Exception("phparray failed to read %u characters for string", missing);
        }
        text.append(chunk.data(), count);
        missing -= count;
    }
    return text;
}

std::string ReadString(std::istream& in)
{
    std::string_view rest = ReadAhead(in);
    unsigned int size = 0;
    if (TakeSize(rest, 's', '"', size) && rest.size() >= size && rest.substr(size).starts_with("\";"))
    {
        SkipTo(in, rest.data() + size + 2);
        return std::string(rest.substr(0, size));
    }
    Expect(in, 's');
    Expect(in, ':');
    const unsigned int length = ReadSize(in);
    Expect(in, ':');
    Expect(in, '"');
    std::string text = ReadBytes(in, length);
    Expect(in, '"');
    Expect(in, ';');
    return text;
}

unsigned int ReadArrayHeader(std::istream& in)
{
    std::string_view rest = ReadAhead(in);
    unsigned int size = 0;
    if (TakeSize(rest, 'a', '{', size))
    {
        SkipTo(in, rest.data());
        return size;
    }
    Expect(in, 'a');
    Expect(in, ':');
    const unsigned int count = ReadSize(in);
    Expect(in, ':');
    Expect(in, '{');
    return count;
}

void ReadGroup(std::istream& in, core::IniFile& ini)
{
    core::IniFile::KeyValueMap& values = ini[ReadString(in)];
    for (unsigned int left = ReadArrayHeader(in); left > 0; --left)
    {
        const std::string key = ReadString(in);
        values[key] = ReadString(in);
    }
    Expect(in, '}');
}

}  // namespace

void PhpArraySettingsSerializer::OnSerialize(const core::IniFile& ini, const common::GroupNameMatcher& groups,
                                             std::ostream& out) const
{
    GroupNameCollection matched;
    groups.GetMatchingGroups(ini, matched);
    Writer writer(out);
    writer.BeginArray(matched.size());
    for (const std::string& group : matched)
    {
        const core::IniFile::KeyValueMap& values = ini[group];
        writer.WriteString(group);
        writer.BeginArray(values.size());
        for (const auto& [key, value] : values)
        {
            writer.WriteString(key);
            writer.WriteString(value);
        }
        writer.EndArray();
    }
    writer.EndArray();
    writer.Finish();
    out.flush();
}

void PhpArraySettingsSerializer::OnDeserialize(std::istream& in, core::IniFile& ini) const
{
    for (unsigned int left = ReadArrayHeader(in); left > 0; --left)
    {
        ReadGroup(in, ini);
    }
    Expect(in, '}');
}

}  // namespace korlo::settings::server
