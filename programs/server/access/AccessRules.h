#pragma once
// Who may read and change what, as rule files say it (docs/access.md).

#include <cstddef>
#include <string>
#include <tuple>
#include <vector>

#include <sys/types.h>

#include "access/ClientIdentity.h"

namespace korlo::daemon
{

/// What one key of a rule holds.
struct AccessPatterns
{
    std::vector<std::string> patterns;  ///< names and patterns, without two `*` in a row
    std::size_t line = 0;               ///< of the key in the rule's file
};

/// One rule. The kernel's overflow ids are in neither list.
///
/// Thread safety: none of its own; the owner guards it. Any number of threads may read at once.
struct AccessRule
{
    std::string name;      ///< without "Access/"
    std::string file;      ///< as it was named
    std::size_t line = 0;  ///< of the group

    bool isAboutEverybody = true;  ///< names neither user nor group
    std::vector<uid_t> users;
    std::vector<gid_t> groups;
    bool isAboutTcp = true;
    bool isAboutUnix = true;

    AccessPatterns read;
    AccessPatterns change;
    AccessPatterns deny;

    /// Does the rule apply to this client?
    bool IsAbout(const ClientIdentity& client) const;

    /// Might it apply, for all that is known? What it denies is denied then: to let a client do what it must not is
    /// worse than to keep it from what it may. The same as IsAbout for a client whose groups are all known.
    bool MayBeAbout(const ClientIdentity& client) const;
};

/// All rules of a device, in the order in which they were read, which decides nothing.
using AccessRules = std::vector<AccessRule>;

/// Which rules of a device are about a client, by their indices.
///
/// Thread safety: none of its own; the owner guards it.
struct ApplicableRules
{
    std::vector<std::size_t> whole;     ///< what they allow and what they deny
    std::vector<std::size_t> denyOnly;  ///< what they deny alone

    bool operator<(const ApplicableRules& other) const
    {
        return std::tie(whole, denyOnly) < std::tie(other.whole, other.denyOnly);
    }
};

}  // namespace korlo::daemon
