#pragma once
// Which groups are restricted, and how they are kept out.

#include <string>

#include "korlo/core/IniFile.h"
#include "settings/GroupNameCollection.h"

namespace korlo::settings::server
{

/// Restricted groups come from a trusted source on the device only, never from a client and never from the user layer.
/// A group is restricted by its name alone: it contains "Secure" or "Trusted", anywhere, in exactly these letters.
///
/// Thread safety: no state; any thread, on documents that no other thread touches meanwhile.
class GroupDiscriminator
{
public:
    /// True for a restricted name.
    static bool IsRestrictedGroup(const std::string& groupName);

    /// Merges every unrestricted group of `source` into `target`; the others are skipped silently.
    static void MergeUnrestrictedGroups(core::IniFile& target, const core::IniFile& source);

    /// Removes the restricted names from the set.
    static void FilterOutRestrictedGroups(GroupNameCollection& names);

    /// Removes the restricted groups from the document, each whole.
    static void FilterOutRestrictedGroups(core::IniFile& ini);

    /// Removes the groups whose names contain "Secure"; those with "Trusted" alone stay. For programs that embed the
    /// store and show its settings to somebody.
    static void FilterOutSecureGroups(core::IniFile& ini);
};

}  // namespace korlo::settings::server
