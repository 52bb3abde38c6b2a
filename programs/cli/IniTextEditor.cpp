#include "IniTextEditor.h"

#include <algorithm>
#include <cstddef>
#include <map>
#include <string_view>
#include <utility>
#include <vector>

#include "IniText.h"
#include "korlo/core/IniReader.h"

namespace korlo::settings::cli
{
namespace
{

using core::IniFile;

constexpr std::string_view ByteOrderMark = "\xEF\xBB\xBF";

// Lines are read and written one at a time by the document's own reader and writer, in a group of this name.
constexpr std::string_view ProbeHeader = "[g]\n";

std::string PairLine(const std::string& key, const std::string& value)
{
    IniFile document;
    document.SetValue("g", key, value);
    std::string text = TextOf(document);
    text.pop_back();
    return text.substr(ProbeHeader.size());
}

/// How much of a pair's line comes before its value.
std::size_t LengthBeforeValue(const std::string& line)
{
    std::size_t equals = line.find('=');
    while (equals != std::string::npos &&
           ReadQuietly(std::string(ProbeHeader).append(line, 0, equals + 1))["g"].empty())
    {
        equals = line.find('=', equals + 1);  // this one stands in a quoted key
    }
    return std::min(line.find_first_not_of(" \t", equals + 1), line.size());
}

struct Line
{
    bool IsBlank() const { return GetFirst() == '\n'; }
    bool IsComment() const { return GetFirst() == '#' || GetFirst() == ';'; }
    bool IsHeader() const { return GetFirst() == '['; }  // also one that makes no sense

    std::string text;  // without the line feed
    bool isRemoved = false;
    std::string added;  // lines that follow it, each with its end

private:
    char GetFirst() const
    {
        const std::size_t first = text.find_first_not_of(" \t\v\f\r");
        return first == std::string::npos ? '\n' : text[first];
    }
};

/// Where a group stands, in lines of the text.
struct Group
{
    std::vector<std::size_t> headers;
    std::multimap<std::string, std::size_t> pairs;  // equal keys in the order of the text
    std::size_t last = 0;                           // the last pair, or else the last header
};

/// A text as lines, while it is edited.
///
/// Thread safety: none of its own; lives within one call.
class Draft : private core::IIniObserver
{
public:
    explicit Draft(std::string_view text);

    void Change(const IniFile& document, const IniFile& wanted);
    std::string Join() const;

private:
    void OnGroup(std::size_t line, std::string_view name) override;
    void OnValue(std::size_t line, std::string_view key, std::string_view value) override;
    void OnBadLine(std::size_t, const char*) override {}

    void ChangeGroup(const Group& group, const IniFile::KeyValueMap& old, const IniFile::KeyValueMap& wanted);
    void AddGroup(const std::string& name, const IniFile::KeyValueMap& values);
    void RemoveSection(std::size_t header);
    std::size_t EndOfContent(std::size_t header) const;
    bool IsBlankBefore(std::size_t line) const;

    std::vector<Line> _lines;
    std::map<std::string, Group, std::less<>> _groups;
    Group* _pGroup = nullptr;  // the one that is being read
    std::string _added;        // groups at the end, each behind a blank line
    std::string_view _byteOrderMark;
    std::string _lineEnd = "\n";
};

Draft::Draft(std::string_view text)
{
    core::IniReader::ReadText(text, *this);
    if (text.starts_with(ByteOrderMark))
    {
        _byteOrderMark = ByteOrderMark;
        text.remove_prefix(ByteOrderMark.size());
    }
    while (!text.empty())
    {
        const std::size_t length = std::min(text.find('\n'), text.size());
        _lines.emplace_back().text = text.substr(0, length);
        text.remove_prefix(std::min(length + 1, text.size()));
    }
    if (!_lines.empty() && _lines.front().text.ends_with('\r'))
    {
        _lineEnd = "\r\n";
    }
}

void Draft::OnGroup(std::size_t line, std::string_view name)
{
    _pGroup = &_groups[std::string(name)];
    _pGroup->headers.push_back(line - 1);
    _pGroup->last = _pGroup->pairs.empty() ? line - 1 : _pGroup->last;
}

void Draft::OnValue(std::size_t line, std::string_view key, std::string_view)
{
    _pGroup->pairs.emplace(key, line - 1);
    _pGroup->last = line - 1;
}

/// Does what makes a text that reads as `document` one that reads as `wanted`.
void Draft::Change(const IniFile& document, const IniFile& wanted)
{
    for (const auto& [name, values] : document)
    {
        const Group& group = _groups.at(name);
        const auto kept = wanted.Find(name);
        if (kept == wanted.end())
        {
            std::ranges::for_each(group.headers, [this](std::size_t header) { RemoveSection(header); });
        }
        else if (!(kept->second == values))
        {
            ChangeGroup(group, values, kept->second);
        }
    }
    for (const auto& [name, values] : wanted)
    {
        if (!document.HasGroup(name))
        {
            AddGroup(name, values);
        }
    }
}

void Draft::ChangeGroup(const Group& group, const IniFile::KeyValueMap& old, const IniFile::KeyValueMap& wanted)
{
    for (const auto& [key, line] : group.pairs)
    {
        _lines[line].isRemoved = !wanted.contains(key);
    }
    for (const auto& [key, value] : wanted)
    {
        const auto previous = old.find(key);
        if (previous == old.end())
        {
            _lines[group.last].added += PairLine(key, value) + _lineEnd;
        }
        else if (previous->second != value)
        {
            std::string& text = _lines[std::prev(group.pairs.upper_bound(key))->second].text;
            const std::string valueToken = PairLine("k", value).substr(2);
            text.replace(LengthBeforeValue(text), std::string::npos, valueToken + (text.ends_with('\r') ? "\r" : ""));
        }
    }
}

void Draft::AddGroup(const std::string& name, const IniFile::KeyValueMap& values)
{
    _added += _lineEnd + '[' + NameToken(name) + ']' + _lineEnd;
    for (const auto& [key, value] : values)
    {
        _added += PairLine(key, value) + _lineEnd;
    }
}

void Draft::RemoveSection(std::size_t header)
{
    // 1. The comment that touches the header, unless the file begins with it.
    std::size_t first = header;
    while (first > 0 && _lines[first - 1].IsComment() && !_lines[first - 1].isRemoved)
    {
        --first;
    }
    first = first == 0 ? header : first;

    // 2. All up to the end of what belongs to the group.
    std::size_t end = EndOfContent(header);

    // 3. Of the blank lines around it, those above remain.
    while (IsBlankBefore(first) && end < _lines.size() && _lines[end].IsBlank())
    {
        ++end;
    }
    for (std::size_t line = first; line < end; ++line)
    {
        _lines[line].isRemoved = true;
    }
}

/// One past the section's last pair or unreadable line and the comment that touches it from below.
std::size_t Draft::EndOfContent(std::size_t header) const
{
    std::size_t next = header + 1;
    while (next < _lines.size() && !_lines[next].IsHeader())
    {
        ++next;
    }
    std::size_t end = next;
    while (end > header + 1 && (_lines[end - 1].IsBlank() || _lines[end - 1].IsComment()))
    {
        --end;
    }
    std::size_t comment = end;
    while (comment < next && _lines[comment].IsComment())
    {
        ++comment;
    }
    const bool touchesNextHeader = comment == next && next < _lines.size();
    return touchesNextHeader ? end : comment;
}

/// True also at the top of the text: a blank line there separates nothing.
bool Draft::IsBlankBefore(std::size_t line) const
{
    while (line > 0 && _lines[line - 1].isRemoved)
    {
        --line;
    }
    return line == 0 || _lines[line - 1].IsBlank();
}

std::string Draft::Join() const
{
    std::string text;
    bool endsBlank = true;
    for (const Line& line : _lines)
    {
        if (!line.isRemoved)
        {
            text += line.text + '\n';
            endsBlank = line.IsBlank();
        }
        text += line.added;
        endsBlank = endsBlank && line.added.empty();
    }
    const std::size_t blankLine = endsBlank && !_added.empty() ? _lineEnd.size() : 0;
    return std::string(_byteOrderMark) + text + _added.substr(blankLine);
}

}  // namespace

IniTextEditor::IniTextEditor(const std::string& text) : _text(text), _document(ReadQuietly(text))
{
}

std::string IniTextEditor::Edit(const IniFile& wanted) const
{
    if (wanted == _document)
    {
        return _text;
    }
    Draft draft(_text);
    draft.Change(_document, wanted);
    std::string text = draft.Join();
    return ReadQuietly(text) == wanted ? text : TextOf(wanted);
}

}  // namespace korlo::settings::cli
