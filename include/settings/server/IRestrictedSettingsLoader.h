#pragma once
// The one way into the store for restricted groups.

#include "settings/server/SettingsCombiner.h"

namespace korlo::settings::server
{

/// Loads the restricted settings from their trusted source. Implemented by whoever owns a SettingsManager.
///
/// Thread safety: called once, by the thread that loads the store, with the store locked; it must not call back.
class IRestrictedSettingsLoader
{
public:
    virtual ~IRestrictedSettingsLoader() = default;

    /// Hands every restricted document to the combiner, in the order in which they are to override one another.
    virtual void LoadRestrictedSettings(SettingsCombiner& combiner) = 0;
};

}  // namespace korlo::settings::server
