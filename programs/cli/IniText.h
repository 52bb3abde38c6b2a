#pragma once
// INI text by way of the document's own reader and writer, without their warnings.

#include <string>
#include <string_view>

#include "korlo/core/IniFile.h"

namespace korlo::settings::cli
{

/// The document that a text holds that was read, and warned of, before: lines that make no sense are skipped without a
/// word. No other thread reads meanwhile.
core::IniFile ReadQuietly(const std::string& text);

/// The whole document as INI text.
std::string TextOf(const core::IniFile& document);

/// The keys of `after` that `before` does not have with the same value. A group without any is left out.
core::IniFile ChangedValues(const core::IniFile& before, const core::IniFile& after);

/// The name as it stands between the brackets of its header line: without a line break, whatever it holds.
std::string NameToken(const std::string& group);

}  // namespace korlo::settings::cli
