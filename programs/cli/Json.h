#pragma once
// Results as JSON, each on one line with a line feed. Bytes that are not UTF-8 become U+FFFD.

#include <optional>
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

/// What one consumer has of a resource.
struct ResourceConsumer
{
    std::string name;
    int used;
    std::optional<int> max;  ///< its cap, if it has one
};

/// `{"resource":"R","total":100,"consumers":[{"name":"A","used":30,"max":50}]}`; `max` is null for no cap.
std::string JsonOf(const std::string& resource, int total, const std::vector<ResourceConsumer>& consumers);

/// `[{"file":"a.ini","line":3,"message":"..."}]`
std::string JsonOf(const std::vector<std::pair<std::string, core::IniFile::BadLine>>& badLines);

}  // namespace korlo::settings::cli
