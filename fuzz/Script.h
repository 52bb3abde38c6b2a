#pragma once
// A fuzzer's input as lines.

#include <cstddef>
#include <string>
#include <utility>

#include "support/Documents.h"

namespace korlo::fuzz
{

/// What is left of a text, line by line.
///
/// Thread safety: none of its own; the owner guards it.
class Script
{
public:
    explicit Script(std::string text) : _text(std::move(text)) {}

    bool IsAtEnd() const { return _next == _text.size(); }

    /// The next line, with its line break if it has one.
    std::string Peek() const { return _text.substr(_next, _text.find('\n', _next) - _next) + LineBreak(); }

    std::string Take()
    {
        const std::string line = Peek();
        _next += line.size();
        return line;
    }

    bool TakeIf(const char* line)
    {
        if (IsAtEnd() || Peek() != line)
        {
            return false;
        }
        Take();
        return true;
    }

    core::IniFile TakeDocument()
    {
        std::string text;
        while (!IsAtEnd() && !TakeIf(".\n"))
        {
            text += Take();
        }
        return Ini(text);
    }

private:
    std::string LineBreak() const { return _text.find('\n', _next) == std::string::npos ? "" : "\n"; }

    const std::string _text;
    std::size_t _next = 0;
};

}  // namespace korlo::fuzz
