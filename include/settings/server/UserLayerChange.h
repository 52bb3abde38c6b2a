#pragma once
// What a change makes of the user layer.

#include "korlo/core/IniFile.h"
#include "settings/GroupNameCollection.h"

namespace korlo::settings::server
{

/// The way from one state of the user layer to a later one: the groups of `removed` go, then `merged` is merged. Values
/// that were there already are in neither. Applying it once more to the later state changes nothing.
///
/// Thread safety: none of its own; the owner guards it.
struct UserLayerChange
{
    GroupNameCollection removed;  ///< may be in `merged`, too: such a group is replaced
    core::IniFile merged;         ///< what is new or has another value

    /// True for the way to where one is.
    bool IsEmpty() const { return removed.empty() && merged.empty(); }

    /// Lets this be the way over `later`, which was made after it. Costs what `later` holds.
    void Append(const UserLayerChange& later);

    /// Goes this way.
    void ApplyTo(core::IniFile& layer) const;
};

}  // namespace korlo::settings::server
