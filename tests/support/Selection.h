#pragma once
// Short ways to select groups in tests.

#include <sstream>
#include <string>

#include "settings/GroupNameCollection.h"
#include "settings/common/GroupNameMatcher.h"
#include "settings/server/ISettingsSerializer.h"

namespace korlo::settings
{

/// The matcher of these names and patterns.
inline common::GroupNameMatcher MatcherOf(const GroupNameCollection& entries)
{
    common::GroupNameMatcher matcher;
    matcher.AddNamesAndPatterns(entries);
    return matcher;
}

/// What the serializer writes of the document's groups that these names and patterns select.
inline std::string Serialized(const server::ISettingsSerializer& serializer, const core::IniFile& ini,
                              const GroupNameCollection& entries)
{
    std::ostringstream out;
    serializer.OnSerialize(ini, MatcherOf(entries), out);
    return out.str();
}

}  // namespace korlo::settings
