#pragma once
// Results as JSON, each on one line with a line feed. Bytes that are not UTF-8 become U+FFFD.

#include <string>
#include <utility>
#include <vector>

#include "korlo/core/IniFile.h"
#include "settings/GroupNameCollection.h"

namespace korlo::settings::cli
{

/// `"value"`
std::string JsonOf(const std::string& value);

/// `["A","B"]`
std::string JsonOf(const GroupNameCollection& names);

/// `{"Group":{"Key":"Value"}}`
std::string JsonOf(const core::IniFile& document);

/// `{"groups":["A"],"settings":{"A":{"Key":"Value"}}}`
std::string JsonOf(const GroupNameCollection& changedGroups, const core::IniFile& settings);

/// `[{"file":"a.ini","line":3,"message":"..."}]`
std::string JsonOf(const std::vector<std::pair<std::string, core::IniFile::BadLine>>& badLines);

}  // namespace korlo::settings::cli
