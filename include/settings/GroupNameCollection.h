#pragma once
// The set of group names that every operation on several groups takes or fills.

#include <set>
#include <string>

namespace korlo::settings
{

/// An ordered set of group names, byte-wise. Where an operation says so, an entry that holds `*` is a pattern.
using GroupNameCollection = std::set<std::string>;

}  // namespace korlo::settings
