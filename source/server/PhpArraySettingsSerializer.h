#pragma once
// The PHP array form of settings, for web pages.

#include "settings/server/ISettingsSerializer.h"

namespace korlo::settings::server
{

/// Writes and reads settings in the text form of PHP's serialize() (PHP manual, "serialize"): an array of groups, each
/// an array of key and value strings. Lengths count bytes and nothing is escaped, so the text says itself where it
/// ends.
///
///     a:2:{s:3:"net";a:1:{s:4:"mode";s:4:"dhcp";}s:2:"ui";a:0:{}}
///
/// Thread safety: all methods, from any thread.
class PhpArraySettingsSerializer : public ISettingsSerializer
{
public:
    /// Writes the selected groups in name order, two line breaks after them, and flushes.
    void OnSerialize(const core::IniFile& ini, const common::GroupNameMatcher& groups,
                     std::ostream& out) const override;

    /// Reads one array on top of what `ini` holds. White space between tokens is skipped; what follows the closing
    /// brace stays in the stream.
    /// @throws osa::Exception at the first fault; what was read before it stays in `ini`.
    void OnDeserialize(std::istream& in, core::IniFile& ini) const override;
};

}  // namespace korlo::settings::server
