#pragma once
// What edits a document on its way into a layer of the store.

#include "korlo/core/IniFile.h"

namespace korlo::settings::server
{

/// Edits each document before a SettingsCombiner merges it.
///
/// Thread safety: called by the thread that loads a layer; the owner says which threads do.
class IIncludeFilter
{
public:
    virtual ~IIncludeFilter() = default;

    /// Edits the document in place: removes groups, removes or rewrites keys.
    virtual void FilterIni(core::IniFile& ini) = 0;
};

}  // namespace korlo::settings::server
