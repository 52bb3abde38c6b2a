#pragma once
// Writes INI text (docs/ini-format.md).

#include <ostream>
#include <string_view>

#include "korlo/core/IniFile.h"
#include "korlo/stl/tGatheringWriter.h"

namespace korlo::core
{

/// Call Flush at the end.
///
/// Thread safety: none of its own; lives on the stack of the operation that saves.
class IniWriter
{
public:
    /// @param out borrowed; must outlive the writer.
    explicit IniWriter(std::ostream& out) : _text(out) {}

    void WriteGroup(std::string_view name, const IniFile::KeyValueMap& values);
    void Flush() { _text.Flush(); }

private:
    bool AppendPlainLine(std::string_view key, std::string_view value);
    /// @param sign what would be misread inside the token. @param isOdd that it needs quotes whatever it holds inside.
    void AppendToken(std::string_view token, char sign, bool isOdd);
    void AppendQuoted(std::string_view token);
    void AppendEscaped(char c);

    stl::tGatheringWriter<1024> _text;
};

}  // namespace korlo::core
