#pragma once
// Which document's version of a group wins while layers are loaded.

#include <map>
#include <string>

#include "settings/server/IIncludeFilter.h"

namespace korlo::settings::server
{

/// Lets a document claim groups with a priority, in its group "KorloSettings/LoadPriority": each key names a group,
/// each value is a decimal integer, larger is stronger. A group that an earlier document claimed is dropped whole from
/// a later one, unless the later one claims it with at least that priority. Without claims, the later document wins key
/// by key.
///
/// Claims that are no integers, and claims for restricted groups, are ignored. The claiming group itself is removed
/// from every document. Each group that is dropped and each claim that is ignored is logged at trace level.
///
/// The highest claim for each group is remembered as long as the filter lives: over all layers and every restore of
/// defaults. So a second load of the same documents can drop groups that the first one kept, because a document that
/// came before the claim is now subject to it. That is intended: a claim, once made, holds.
///
/// Thread safety: none of its own; the owner loads one layer at a time.
class LoadPriorityIncludeFilter : public IIncludeFilter
{
public:
    LoadPriorityIncludeFilter() = default;
    ~LoadPriorityIncludeFilter() override = default;

    /// Drops the groups that others have the stronger claim to, then remembers the document's own claims.
    void FilterIni(core::IniFile& ini) override;

    /// Remembers each of `priorities` unless a greater one is remembered for that group.
    void MergePriorities(const std::map<std::string, int>& priorities);

private:
    std::map<std::string, int> _priorities;
};

}  // namespace korlo::settings::server
