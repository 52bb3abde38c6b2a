#pragma once
// Writes INI text (docs/ini-format.md).

#include <array>
#include <cstddef>
#include <ostream>
#include <string_view>

#include "korlo/core/IniFile.h"

namespace korlo::core
{

/// Gathers lines and hands them to the stream in large pieces, since a stream operation for each token would cost more
/// than the text. Call Flush at the end.
///
/// Thread safety: none of its own; lives on the stack of the operation that saves.
class IniWriter
{
public:
    /// @param out borrowed; must outlive the writer.
    explicit IniWriter(std::ostream& out) : _out(out) {}

    void WriteGroup(std::string_view name, const IniFile::KeyValueMap& values);
    void Flush();

private:
    bool AppendPlainLine(std::string_view key, std::string_view value);
    void Append(char c);
    void Append(std::string_view text);
    /// @param sign what would be misread inside the token. @param isOdd that it needs quotes whatever it holds inside.
    void AppendToken(std::string_view token, char sign, bool isOdd);
    void AppendQuoted(std::string_view token);
    void AppendEscaped(char c);

    std::ostream& _out;
    std::size_t _used = 0;
    std::array<char, 1024> _pending;  // each page of a stack that was ever touched stays with its thread
};

}  // namespace korlo::core
