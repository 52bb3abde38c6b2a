#pragma once
// What an application implements to hear of changes.

#include "korlo/core/IniFile.h"
#include "settings/GroupNameCollection.h"

namespace korlo::settings
{

/// A subscriber to changes of settings.
///
/// Thread safety: OnChange comes on a thread that the caller of Subscribe does not choose (the one that made the
/// change, or the client's reader thread), never two at a time from one client.
class IChangeCallback
{
public:
    virtual ~IChangeCallback() = default;

    /// @param changedGroups the groups that changed and that this subscriber asked for, by name or by pattern.
    /// @param settings holds at least the current content of those groups; one that was erased is not in it. Valid
    ///        during the call.
    virtual void OnChange(const GroupNameCollection& changedGroups, const core::IniFile& settings) = 0;
};

}  // namespace korlo::settings
