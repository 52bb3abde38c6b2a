#pragma once
// Reads INI text (docs/ini-format.md) in one pass over its bytes.

#include <cstddef>
#include <list>
#include <optional>
#include <string>
#include <string_view>

namespace korlo::core
{

/// What an IniParser finds, in the order of the text.
///
/// Thread safety: none of its own; called on the thread that runs the parser.
class IIniSink
{
public:
    virtual ~IIniSink() = default;

    /// A group begins. The views of all three operations are valid as long as the parser and its text are.
    virtual void OnGroup(std::string_view name) = 0;

    /// A key of the group that began last; never called before the first OnGroup.
    virtual void OnValue(std::string_view key, std::string_view value) = 0;

    /// A line, counted from 1, that makes no sense and is skipped.
    virtual void OnBadLine(std::size_t number, const char* reason) = 0;
};

/// Splits a text into groups, keys and values. Plain tokens are handed on as views of the text; only a quoted token
/// that holds an escape is copied.
///
/// Thread safety: none of its own; lives on the stack of the operation that loads.
class IniParser
{
public:
    /// @param text and @param sink borrowed; must outlive the parser.
    IniParser(std::string_view text, IIniSink& sink);

    void Run();

    /// The line, counted from 1, that holds what the sink is being told.
    std::size_t GetLineNumber() const { return _lineNumber; }

private:
    void ParseLine(std::string_view line);
    void ParseHeader(std::string_view line);
    void ParsePair(std::string_view line);
    std::optional<std::string_view> TakeKey(std::string_view& line);
    std::optional<std::string_view> TakeQuoted(std::string_view& line);
    std::string_view Unescape(std::string_view escaped, bool& valid);
    void Reject(const char* reason);

    std::string_view _text;
    IIniSink& _sink;
    std::size_t _lineNumber = 0;
    bool _inGroup = false;              // false also after a header that makes no sense: its keys belong nowhere
    std::list<std::string> _unescaped;  // keeps what the handed-on views of escaped tokens point to
};

}  // namespace korlo::core
