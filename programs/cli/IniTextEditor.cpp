#include "IniTextEditor.h"

#include <cstddef>
#include <map>
#include <string_view>
#include <utility>
#include <vector>

#include "IniText.h"

namespace korlo::settings::cli
{
namespace
{

using core::IniFile;

constexpr std::string_view ByteOrderMark = "\xEF\xBB\xBF";
constexpr std::string_view Blanks = " \t\v\f\r";

// Lines are read one at a time by the document's own reader, under a group of this name.
constexpr std::string_view ProbeHeader = "[g]\n";

std::string LastLineOf(const IniFile& document)
{
    std::string text = TextOf(document);
    text.pop_back();
    return text.substr(text.rfind('\n') + 1);
}

std::string PairLine(const std::string& key, const std::string& value)
{
    IniFile document;
    document.SetValue("g", key, value);
    return LastLineOf(document);
}

std::string ValueToken(const std::string& value)
{
    return PairLine("k", value).substr(2);
}

/// The key of a line within a group, and whether there is one.
bool ReadKey(std::string_view line, std::string& key)
{
    const IniFile probe = ReadQuietly(std::string(ProbeHeader).append(line));
    const IniFile::KeyValueMap& values = probe["g"];
    if (values.empty())
    {
        return false;
    }
    key = values.begin()->first;
    return true;
}

/// How much of a pair's line comes before its value.
std::size_t LengthBeforeValue(const std::string& line)
{
    std::string ignored;
    std::size_t equals = line.find('=');
    while (equals != std::string::npos && !ReadKey(std::string_view(line).substr(0, equals + 1), ignored))
    {
        equals = line.find('=', equals + 1);  // this one stands in a quoted key
    }
    const std::size_t value = line.find_first_not_of(" \t", equals + 1);
    return value == std::string::npos ? line.size() : value;
}

enum Kind
{
    Blank,
    Comment,
    Header,
    Content  // a pair, or a line that makes no sense
};

Kind KindOf(std::string_view line)
{
    const std::size_t first = line.find_first_not_of(Blanks);
    if (first == std::string_view::npos)
    {
        return Blank;
    }
    switch (line[first])
    {
    case '#':
    case ';':
        return Comment;
    case '[':
        return Header;
    default:
        return Content;
    }
}

struct Line
{
    std::string text;  // without the line feed
    Kind kind;
    bool removed = false;
    std::vector<std::string> added;  // lines that follow it, without line ends
};

struct Section
{
    std::size_t first;  // its header
    std::size_t end;    // one past its last line
};

/// A text as lines, while it is edited.
///
/// Thread safety: none of its own; lives within one call.
class Draft
{
public:
    explicit Draft(std::string_view text);

    void ChangeGroup(const std::string& name, const IniFile::KeyValueMap& old, const IniFile::KeyValueMap& wanted);
    void RemoveGroup(const std::string& name);
    void AddGroup(const IniFile& document, const std::string& name);
    std::string Join() const;

private:
    struct Pairs
    {
        std::multimap<std::string, std::size_t> lines;  // equal keys in the order of the text
        std::size_t last = 0;                           // the last pair, or the header
    };

    void FindSections();
    Pairs FindPairs(const std::string& group) const;
    void RemoveSection(Section section);
    std::size_t EndOfContent(Section section) const;
    bool IsBlankBefore(std::size_t line) const;

    std::vector<Line> _lines;
    std::map<std::string, std::vector<Section>> _sections;
    std::vector<std::string> _added;  // at the end, without line ends
    bool _hasByteOrderMark = false;
    std::string _lineEnd = "\n";
};

Draft::Draft(std::string_view text)
{
    if (text.starts_with(ByteOrderMark))
    {
        _hasByteOrderMark = true;
        text.remove_prefix(ByteOrderMark.size());
    }
    while (!text.empty())
    {
        const std::size_t length = std::min(text.find('\n'), text.size());
        const std::string_view line = text.substr(0, length);
        _lines.push_back({std::string(line), KindOf(line), false, {}});
        text.remove_prefix(std::min(length + 1, text.size()));
    }
    if (!_lines.empty() && _lines.front().text.ends_with('\r'))
    {
        _lineEnd = "\r\n";
    }
    FindSections();
}

void Draft::FindSections()
{
    std::vector<Section>* pCurrent = nullptr;
    for (std::size_t line = 0; line < _lines.size(); ++line)
    {
        if (_lines[line].kind == Header)
        {
            // What follows a header that makes no sense belongs to no group.
            const IniFile probe = ReadQuietly(_lines[line].text);
            pCurrent = probe.empty() ? nullptr : &_sections[probe.begin()->first];
            if (pCurrent != nullptr)
            {
                pCurrent->push_back({line, line + 1});
            }
        }
        else if (pCurrent != nullptr)
        {
            pCurrent->back().end = line + 1;
        }
    }
}

Draft::Pairs Draft::FindPairs(const std::string& group) const
{
    Pairs pairs;
    for (const Section& section : _sections.at(group))
    {
        pairs.last = pairs.lines.empty() ? section.first : pairs.last;
        for (std::size_t line = section.first + 1; line < section.end; ++line)
        {
            std::string key;
            if (_lines[line].kind == Content && ReadKey(_lines[line].text, key))
            {
                pairs.lines.emplace(std::move(key), line);
                pairs.last = line;
            }
        }
    }
    return pairs;
}

void Draft::ChangeGroup(const std::string& name, const IniFile::KeyValueMap& old, const IniFile::KeyValueMap& wanted)
{
    const Pairs pairs = FindPairs(name);
    for (const auto& [key, line] : pairs.lines)
    {
        _lines[line].removed = !wanted.contains(key);
    }
    for (const auto& [key, value] : wanted)
    {
        const auto previous = old.find(key);
        if (previous == old.end())
        {
            _lines[pairs.last].added.push_back(PairLine(key, value));
        }
        else if (previous->second != value)
        {
            std::string& text = _lines[std::prev(pairs.lines.upper_bound(key))->second].text;
            const bool hasReturn = text.ends_with('\r');
            text.replace(LengthBeforeValue(text), std::string::npos, ValueToken(value) + (hasReturn ? "\r" : ""));
        }
    }
}

void Draft::RemoveGroup(const std::string& name)
{
    for (const Section& section : _sections.at(name))
    {
        RemoveSection(section);
    }
}

void Draft::RemoveSection(Section section)
{
    // 1. The comment that touches the header, unless the file begins with it.
    std::size_t first = section.first;
    while (first > 0 && _lines[first - 1].kind == Comment && !_lines[first - 1].removed)
    {
        --first;
    }
    first = first == 0 ? section.first : first;

    // 2. All up to the end of what belongs to the group.
    std::size_t end = EndOfContent(section);

    // 3. Of the blank lines around it, those above remain.
    while (IsBlankBefore(first) && end < _lines.size() && _lines[end].kind == Blank)
    {
        ++end;
    }
    for (std::size_t line = first; line < end; ++line)
    {
        _lines[line].removed = true;
    }
}

/// One past the section's last pair or unreadable line and the comment that touches it from below.
std::size_t Draft::EndOfContent(Section section) const
{
    std::size_t end = section.end;
    while (end > section.first + 1 && (_lines[end - 1].kind == Blank || _lines[end - 1].kind == Comment))
    {
        --end;
    }
    std::size_t comment = end;
    while (comment < section.end && _lines[comment].kind == Comment)
    {
        ++comment;
    }
    const bool touchesNextHeader = comment == section.end && comment < _lines.size();
    return touchesNextHeader ? end : comment;
}

/// True also at the top of the text: a blank line there separates nothing.
bool Draft::IsBlankBefore(std::size_t line) const
{
    while (line > 0 && _lines[line - 1].removed)
    {
        --line;
    }
    return line == 0 || _lines[line - 1].kind == Blank;
}

void Draft::AddGroup(const IniFile& document, const std::string& name)
{
    IniFile group;
    group.MergeSettings(document, name);
    std::string_view text;
    const std::string whole = TextOf(group);
    _added.emplace_back();
    for (text = whole; !text.empty(); text.remove_prefix(text.find('\n') + 1))
    {
        _added.emplace_back(text.substr(0, text.find('\n')));
    }
}

std::string Draft::Join() const
{
    std::string text;
    bool endsBlank = true;
    for (const Line& line : _lines)
    {
        if (!line.removed)
        {
            text += line.text + '\n';
            endsBlank = line.kind == Blank;
        }
        for (const std::string& added : line.added)
        {
            text += added + _lineEnd;
            endsBlank = false;
        }
    }
    for (const std::string& added : _added)
    {
        text += added.empty() && endsBlank ? "" : added + _lineEnd;
        endsBlank = false;
    }
    return _hasByteOrderMark ? std::string(ByteOrderMark) + text : text;
}

void RemoveAndChange(Draft& draft, const IniFile& document, const IniFile& wanted)
{
    for (const auto& [name, values] : document)
    {
        const auto kept = wanted.Find(name);
        if (kept == wanted.end())
        {
            draft.RemoveGroup(name);
        }
        else if (!(kept->second == values))
        {
            draft.ChangeGroup(name, values, kept->second);
        }
    }
}

void Add(Draft& draft, const IniFile& document, const IniFile& wanted)
{
    for (const auto& [name, values] : wanted)
    {
        if (!document.HasGroup(name))
        {
            draft.AddGroup(wanted, name);
        }
    }
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
    RemoveAndChange(draft, _document, wanted);
    Add(draft, _document, wanted);
    std::string text = draft.Join();
    return ReadQuietly(text) == wanted ? text : TextOf(wanted);
}

}  // namespace korlo::settings::cli
