#pragma once
// The INI text form of settings.

#include "settings/server/ISettingsSerializer.h"

namespace korlo::settings::server
{

/// Writes groups as the document writes them, and reads a block of INI text up to a line that is a single full stop.
///
/// Thread safety: all methods, from any thread.
class IniFileSettingsSerializer : public ISettingsSerializer
{
public:
    /// Writes nothing but the selected groups, in name order.
    void OnSerialize(const core::IniFile& ini, const common::GroupNameMatcher& groups,
                     std::ostream& out) const override;

    /// Lines that make no sense are skipped with a warning, as everywhere.
    void OnDeserialize(std::istream& in, core::IniFile& ini) const override;
};

}  // namespace korlo::settings::server
