#pragma once
// What a store holds, for tests.

#include <sstream>

#include "settings/server/SettingsManager.h"
#include "support/Documents.h"

namespace korlo::settings::server
{

/// Every group that the store holds.
inline core::IniFile All(const SettingsManager& store)
{
    core::IniFile all;
    store.GetGroups(all, "*");
    return all;
}

/// What the store would save.
inline core::IniFile UserLayer(const SettingsManager& store)
{
    std::ostringstream out;
    store.DumpUserSettings(out);
    return Ini(out.str());
}

}  // namespace korlo::settings::server
