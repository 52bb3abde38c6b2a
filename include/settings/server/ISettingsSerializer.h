#pragma once
// A text form in which a connection writes and reads settings.

#include <istream>
#include <ostream>

#include "korlo/core/IniFile.h"
#include "settings/common/GroupNameMatcher.h"

namespace korlo::settings::server
{

/// One text form. Serializers have no state: one instance serves every connection at once.
///
/// Thread safety: all methods, from any thread, each call with streams and documents of its own.
class ISettingsSerializer
{
public:
    virtual ~ISettingsSerializer() noexcept(false) = default;

    /// Writes those groups of `ini` that `groups` selects.
    virtual void OnSerialize(const core::IniFile& ini, const common::GroupNameMatcher& groups,
                             std::ostream& out) const = 0;

    /// Reads one document into `ini`, on top of what it holds, and leaves what follows it in the stream.
    virtual void OnDeserialize(std::istream& in, core::IniFile& ini) const = 0;
};

}  // namespace korlo::settings::server
