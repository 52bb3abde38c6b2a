#pragma once
// Why a setting has the value that it has.

#include <cstddef>
#include <optional>
#include <vector>

#include "explain/KeySources.h"
#include "settings/SettingLocator.h"
#include "settings/server/SettingsManager.h"

namespace korlo::daemon
{

/// Every place that gives a key a value, in the order in which they are loaded, each with why it counts or not.
struct Explanation
{
    std::vector<Occurrence> occurrences;
    std::optional<std::size_t> winner;  ///< the one of the store's value; nothing where the key has no value
};

/// Compares what the store holds with what the files say. The store keeps no history, so the values decide: what is
/// neither in the files nor in the user layer was changed without persisting, unless a file was changed since it was
/// loaded. Then the value may as well come from there, and the answer says so.
///
/// The store is read shortly, one key at a time, and the files are read without any of its locks. Where the key changes
/// meanwhile the answer is made anew, a few times at most.
///
/// Thread safety: all methods, from any thread.
class SettingExplainer
{
public:
    /// @param store, files borrowed.
    SettingExplainer(const settings::server::SettingsManager& store, const StoreFiles& files)
        : _store(store),
          _files(files)
    {
    }

    Explanation Explain(const settings::SettingLocator& locator) const;

private:
    const settings::server::SettingsManager& _store;
    const StoreFiles& _files;
};

}  // namespace korlo::daemon
