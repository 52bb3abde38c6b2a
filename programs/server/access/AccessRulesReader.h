#pragma once
// Reads rule files.

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "access/AccessRules.h"
#include "access/IUserDatabase.h"

namespace korlo::daemon
{

/// What came of reading rule files.
///
/// Thread safety: none of its own; the owner guards it.
struct AccessRulesOutcome
{
    std::shared_ptr<const AccessRules> pRules;  ///< null when there is a mistake
    std::vector<std::string> mistakes;          ///< one line each, "FILE:LINE: what" where there is a line
    std::vector<std::string> warnings;          ///< the same; they stop nothing
};

/// Reads the access rules of a device and finds every mistake in them, not the first alone. Names of users and groups
/// become ids here: an account that is made later counts from the next reading on.
///
///     const AccessRulesOutcome outcome = AccessRulesReader(users).Read({"/etc/korlo-settings/access.d"});
///     if (!outcome.pRules)
///         Print(outcome.mistakes);
///
/// Thread safety: all methods, from any thread; nothing changes after construction.
class AccessRulesReader
{
public:
    static constexpr std::size_t MostBytesOfAFile = 1024 * 1024;
    static constexpr std::size_t MostMessages = 100;  ///< of each kind; one more then says how many there were

    /// @param users borrowed; must outlive the reader.
    explicit AccessRulesReader(const IUserDatabase& users) : _users(users) {}

    /// Reads files, and the "*.ini" files of folders. Rules are one set, however they are spread over files. A folder
    /// named like a rule file is a mistake: what is in it would not be read.
    AccessRulesOutcome Read(const std::vector<std::string>& filesAndFolders) const;

private:
    const IUserDatabase& _users;
};

}  // namespace korlo::daemon
