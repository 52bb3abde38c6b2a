#pragma once
// INI text by way of the document's own reader and writer, without their warnings.

#include <string>
#include <string_view>

#include "korlo/core/IniFile.h"

namespace korlo::settings::cli
{

/// Logs nothing about lines that make no sense while it lives: for text that was read, and warned of, before.
///
/// Thread safety: none of its own; affects every reading in the process.
class QuietReading
{
public:
    QuietReading();
    QuietReading(const QuietReading&) = delete;
    QuietReading& operator=(const QuietReading&) = delete;
    ~QuietReading();

private:
    const int _threshold;
};

/// The document that the text holds; lines that make no sense are skipped without a word.
core::IniFile ReadQuietly(const std::string& text);

/// The whole document as INI text.
std::string TextOf(const core::IniFile& document);

/// The name as it stands between the brackets of its header line: without a line break, whatever it holds.
std::string NameToken(const std::string& group);

}  // namespace korlo::settings::cli
