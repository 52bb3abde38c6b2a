#include "server/PhpArraySettingsSerializer.h"

#include <algorithm>
#include <array>
#include <string>

#include "korlo/osa/Exception.h"

namespace korlo::settings::server
{
namespace
{

// Sizes go out as text made here: the stream's locale may group digits, and its flags may ask for hexadecimal.

void WriteString(std::ostream& out, const std::string& text)
{
    out << "s:" << std::to_string(text.size()) << ":\"";
    out.write(text.data(), static_cast<std::streamsize>(text.size()));
    out << "\";";
}

void WriteArrayHeader(std::ostream& out, std::size_t count)
{
    out << "a:" << std::to_string(count) << ":{";
}

void WriteGroup(std::ostream& out, const core::IniFile::KeyValueMap& values)
{
    WriteArrayHeader(out, values.size());
    for (const auto& [key, value] : values)
    {
        WriteString(out, key);
        WriteString(out, value);
    }
    out << '}';
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
    WriteArrayHeader(out, matched.size());
    for (const std::string& group : matched)
    {
        WriteString(out, group);
        WriteGroup(out, ini[group]);
    }
    out << "}\n\n" << std::flush;
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
