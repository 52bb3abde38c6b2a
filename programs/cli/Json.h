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

/// What the server's access rules say to a question.
struct AccessVerdict
{
    /// What decided.
    struct Rule
    {
        std::string name;
        std::string file;
        int line;
    };

    bool isAllowed;
    std::string reason;
    std::optional<Rule> rule;  ///< nothing where no rule decided
};

/// `{"allowed":1,"reason":"...","rule":"web","file":"a.ini","line":3}`, with the names and the 0 or 1 of the server's
/// own answer; `rule`, `file` and `line` are null where no rule decided.
std::string JsonOf(const AccessVerdict& verdict);

/// `{"rules":3,"warnings":["..."]}`
std::string JsonOf(int rules, const std::vector<std::string>& warnings);

/// `[{"file":"a.ini","line":3,"message":"..."}]`
std::string JsonOf(const std::vector<std::pair<std::string, core::IniFile::BadLine>>& badLines);

}  // namespace korlo::settings::cli
