#pragma once
// Tells the storage what a change makes of the user layer.

#include <optional>

#include "korlo/core/IniFile.h"
#include "settings/GroupNameCollection.h"
#include "settings/server/IChangePersister.h"
#include "settings/server/ISettingsPersister.h"
#include "settings/server/UserLayerChange.h"

namespace korlo::settings::server
{

/// One change of the user layer, from before it is made until it is saved. Without an IChangePersister the whole layer
/// is saved, and nothing is worked out.
///
/// Thread safety: none of its own; it lives on the stack of the change, inside the store's lock.
class UserLayerEdit
{
public:
    /// Where a store saves to.
    struct Storage
    {
        ISettingsPersister* pPersister;      ///< borrowed, may be null
        IChangePersister* pChangePersister;  ///< borrowed, may be null
    };

    /// @param isLayerDue stays true from here until Save has returned; where it was true before, an edit has ended
    ///        without that, and the whole layer is saved.
    UserLayerEdit(const Storage& storage, const core::IniFile& layer, bool& isLayerDue);
    UserLayerEdit(const UserLayerEdit&) = delete;
    UserLayerEdit& operator=(const UserLayerEdit&) = delete;

    /// `changes` is about to be merged into the layer. Costs one look-up for each of its keys.
    void ExpectMerge(const core::IniFile& changes);

    /// The groups are about to be removed from the layer, then `added` to be merged, and the record of erased groups to
    /// grow. Costs a copy of all these groups, as does Save then.
    void ExpectReplacement(const GroupNameCollection& removed, const core::IniFile& added);

    /// The layer is changed.
    void Save();

private:
    /// What an IChangePersister is told from. Nothing else needs it, and making it would be a good part of a merge.
    ///
    /// Thread safety: none of its own; the owner guards it.
    struct Difference
    {
        UserLayerChange change;               // of a merge
        std::optional<core::IniFile> before;  // of a replacement: those of its groups that were there
        GroupNameCollection names;            // of a replacement: all groups that it may touch
    };

    UserLayerChange DifferenceOfReplacement() const;

    const Storage _storage;
    const core::IniFile& _layer;
    bool& _isLayerDue;
    std::optional<Difference> _difference;  // only where it is told
};

}  // namespace korlo::settings::server
