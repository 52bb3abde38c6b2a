#pragma once
// Access rules for a server.

#include <string>

namespace korlo::benchmarks
{

/// A file of rules about everybody who comes over TCP, which goes with this object.
///
/// Thread safety: none of its own; the owner guards it.
class RulesFile
{
public:
    /// @param count of the rules. All but the last are about other groups, patterns and denials among them.
    /// @param group which the last lets everybody change.
    RulesFile(int count, const std::string& group);
    ~RulesFile();
    RulesFile(const RulesFile&) = delete;
    RulesFile& operator=(const RulesFile&) = delete;

    const std::string& GetPath() const { return _path; }

private:
    std::string _path;
};

}  // namespace korlo::benchmarks
