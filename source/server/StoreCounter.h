#pragma once
// Counts what a store holds while it changes.

#include <atomic>
#include <cstddef>
#include <string>

#include "korlo/core/IniFile.h"
#include "settings/server/StoreFigures.h"

namespace korlo::settings::server
{

/// Keeps the figures of a document: it makes the merges, and is told of what others are about to do. So a change costs
/// nothing for the rest of the document.
///
/// Thread safety: GetFigures from any thread, without a lock, so that nobody who asks waits for a change that is being
/// saved; while a change is made, some of the figures may be those before it. The rest belongs to who has the document
/// to himself.
class StoreCounter
{
public:
    /// Counts the whole document at the end of a scope, whatever has happened in it.
    ///
    /// Thread safety: as the counter's.
    class Recounting
    {
    public:
        /// @param counter, settings borrowed.
        Recounting(StoreCounter& counter, const core::IniFile& settings) : _counter(counter), _settings(settings) {}
        Recounting(const Recounting&) = delete;
        Recounting& operator=(const Recounting&) = delete;
        ~Recounting() { _counter.Recount(_settings); }

    private:
        StoreCounter& _counter;
        const core::IniFile& _settings;
    };

    StoreFigures GetFigures() const;

    /// Merges `changes` into `settings` and counts what that adds, key by key, in one walk.
    void Merge(const core::IniFile& changes, core::IniFile& settings);

    /// The group is about to be removed from `settings`, if it is there.
    void CountRemoval(const core::IniFile& settings, const std::string& group);

    void Recount(const core::IniFile& settings);

    void CountChange() { _changes.store(_changes.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed); }

private:
    struct Amount;

    void Set(const Amount& amount);

    std::atomic<std::size_t> _groups = 0;
    std::atomic<std::size_t> _keys = 0;
    std::atomic<std::size_t> _bytes = 0;
    std::atomic<std::size_t> _changes = 0;
};

}  // namespace korlo::settings::server
