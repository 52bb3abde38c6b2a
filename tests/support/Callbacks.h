#pragma once
// Subscribers for tests.

#include <functional>
#include <mutex>
#include <utility>
#include <vector>

#include "korlo/core/IniFile.h"
#include "settings/IChangeCallback.h"

namespace korlo::settings
{

/// One call to a subscriber.
struct Change
{
    GroupNameCollection groups;
    core::IniFile settings;

    friend bool operator==(const Change& left, const Change& right) = default;
};

/// A subscriber that keeps what it was called with.
///
/// Thread safety: all methods, from any thread.
class RecordingCallback : public IChangeCallback
{
public:
    void OnChange(const GroupNameCollection& changedGroups, const core::IniFile& settings) override
    {
        const std::lock_guard lock(_mutex);
        _changes.push_back({changedGroups, settings});
    }

    std::vector<Change> GetChanges() const
    {
        const std::lock_guard lock(_mutex);
        return _changes;
    }

    /// The groups of each call.
    std::vector<GroupNameCollection> GetGroups() const
    {
        const std::lock_guard lock(_mutex);
        std::vector<GroupNameCollection> groups;
        for (const Change& change : _changes)
        {
            groups.push_back(change.groups);
        }
        return groups;
    }

private:
    mutable std::mutex _mutex;
    std::vector<Change> _changes;
};

/// A subscriber that does what the test says.
///
/// Thread safety: that of the function.
class FunctionCallback : public IChangeCallback
{
public:
    using Function = std::function<void(const GroupNameCollection&, const core::IniFile&)>;

    FunctionCallback() = default;
    explicit FunctionCallback(Function function) : _function(std::move(function)) {}

    /// For a function that needs the callback itself. Before the first call.
    void Do(Function function) { _function = std::move(function); }

    void OnChange(const GroupNameCollection& changedGroups, const core::IniFile& settings) override
    {
        _function(changedGroups, settings);
    }

private:
    Function _function;
};

}  // namespace korlo::settings
