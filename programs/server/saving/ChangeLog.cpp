#include "saving/ChangeLog.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <utility>

#include "korlo/core/IniFile.h"
#include "korlo/stl/TextStream.h"
#include "saving/Checksum.h"

namespace korlo::daemon
{
namespace
{

constexpr std::string_view FirstWord = "#log 1 of ";
constexpr std::string_view BytesWord = " bytes ";
constexpr std::string_view RecordWord = "#change ";
constexpr std::string_view RemovalWord = "#remove ";
constexpr std::size_t ChecksumDigits = 8;
constexpr int Hexadecimal = 16;

std::string DigitsOf(std::uint32_t checksum)
{
    std::array<char, ChecksumDigits> digits;
    const auto [pEnd, error] = std::to_chars(digits.data(), digits.data() + digits.size(), checksum, Hexadecimal);
    const std::string_view text(digits.data(), static_cast<std::size_t>(pEnd - digits.data()));
    return std::string(ChecksumDigits - text.size(), '0').append(text);
}

std::string RecordLineFor(std::string_view body)
{
    const std::string bytes = std::to_string(body.size());
    return std::string(RecordWord).append(bytes) + ' ' + DigitsOf(Checksum(body, Checksum(bytes + '\n'))) + '\n';
}

/// The number that the text begins with; 0 for none.
std::size_t NumberAt(std::string_view text)
{
    std::size_t number = 0;
    std::from_chars(text.data(), text.data() + text.size(), number);
    return number;
}

/// True for a line that ends too early, and without a line break.
bool IsCutLine(std::string_view text, std::string_view word)
{
    const std::size_t common = std::min(text.size(), word.size());
    return text.substr(0, common) == word.substr(0, common) &&
           text.find_first_not_of("0123456789abcdef bytes", common) == std::string_view::npos;
}

/// True for a record whose line is whole and whose body ends too early.
bool IsCutRecord(std::string_view line, std::string_view rest, std::size_t bytes)
{
    const std::string length = std::string(RecordWord).append(std::to_string(bytes)).append(" ");
    const bool isFollowed =
        rest.starts_with(RecordWord) || rest.find('\n' + std::string(RecordWord)) != std::string_view::npos;
    return bytes > rest.size() && line.starts_with(length) && line.size() == length.size() + ChecksumDigits + 1 &&
           !isFollowed && !RecordLineFor(rest).ends_with(line.substr(length.size()));
}

std::size_t CountLines(std::string_view text)
{
    return static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n'));
}

}  // namespace

ContentMark ContentMark::Of(std::string_view content)
{
    return {content.size(), Checksum(content)};
}

std::string ChangeLog::FirstLineFor(const ContentMark& content)
{
    std::string line(FirstWord);
    line.append(std::to_string(content.bytes)).append(BytesWord).append(DigitsOf(content.checksum));
    const std::string own = DigitsOf(Checksum(line));
    return line.append(" ").append(own).append("\n");
}

std::string ChangeLog::RecordOf(const settings::server::UserLayerChange& change)
{
    stl::TextStream body;
    for (const std::string& name : change.removed)
    {
        core::IniFile group;
        group[name];
        body << RemovalWord;
        group.SaveToStream(body);
    }
    change.merged.SaveToStream(body);
    const std::string text = std::move(body).str();
    return RecordLineFor(text) + text;
}

ChangeLog::Parts::Parts(std::string_view body) : merged(body)
{
    std::string lines;
    while (merged.starts_with(RemovalWord))
    {
        const std::size_t end = std::min(merged.find('\n'), merged.size() - 1) + 1;
        lines.append(merged.substr(RemovalWord.size(), end - RemovalWord.size()));
        merged.remove_prefix(end);
        ++removedLines;
    }
    core::IniFile groups;
    groups.LoadFromString(lines);
    for (const auto& [name, none] : groups)
    {
        removed.insert(name);
    }
}

ChangeLog::ChangeLog(std::string_view text)
{
    text = ReadFirstLine(text);
    while (_end == Whole && !text.empty())
    {
        text.remove_prefix(ReadRecord(text));
    }
}

/// Returns what is behind it.
std::string_view ChangeLog::ReadFirstLine(std::string_view text)
{
    const std::size_t end = text.find('\n');
    if (end == std::string_view::npos)
    {
        _end = IsCutLine(text, FirstWord) ? Cut : Damaged;
        return {};
    }
    const std::string_view line = text.substr(0, end + 1);
    const std::size_t bytesWord = line.find(BytesWord);
    if (line.starts_with(FirstWord) && bytesWord != std::string_view::npos)
    {
        const std::string_view digits = line.substr(bytesWord + BytesWord.size());
        ContentMark content = {NumberAt(line.substr(FirstWord.size())), 0};
        std::from_chars(digits.data(), digits.data() + digits.size(), content.checksum, Hexadecimal);
        if (line == FirstLineFor(content))  // so that no other spelling of these numbers counts
        {
            _content = content;
            ++_line;
            return text.substr(end + 1);
        }
    }
    _end = Damaged;
    return {};
}

/// Returns how long it is, or notes the end.
std::size_t ChangeLog::ReadRecord(std::string_view text)
{
    const std::size_t lineEnd = text.find('\n');
    if (lineEnd == std::string_view::npos)
    {
        _end = IsCutLine(text, RecordWord) ? Cut : Damaged;
        return 0;
    }
    const std::string_view line = text.substr(0, lineEnd + 1);
    const std::string_view rest = text.substr(lineEnd + 1);
    const std::size_t bytes = line.starts_with(RecordWord) ? NumberAt(line.substr(RecordWord.size())) : 0;
    const std::string_view body = rest.substr(0, bytes);
    if (bytes > 0 && body.size() == bytes && line == RecordLineFor(body))
    {
        _records.push_back({_line, body});
        _line += 1 + CountLines(body);
        return line.size() + body.size();
    }
    _end = IsCutRecord(line, rest, bytes) ? Cut : Damaged;
    return 0;
}

void ChangeLog::ApplyTo(core::IniFile& layer) const
{
    for (const Record& record : _records)
    {
        const Parts parts(record.body);
        settings::server::UserLayerChange change;
        change.removed = parts.removed;
        change.merged.LoadFromString(std::string(parts.merged));
        change.ApplyTo(layer);
    }
}

}  // namespace korlo::daemon
