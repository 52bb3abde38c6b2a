#pragma once
// Hearing what was changed in a store, by whom.

#include "settings/server/ChangedNames.h"

namespace korlo::settings::server
{

/// Who makes a change, as the owner of the store knows it: a base for the owner's own class. The library passes it on
/// and never looks into it.
class ChangeOrigin
{
protected:
    ChangeOrigin() = default;
    ChangeOrigin(const ChangeOrigin&) = default;
    ChangeOrigin& operator=(const ChangeOrigin&) = default;
    ~ChangeOrigin() = default;
};

/// What a change does, in the words of those who read about it.
namespace operation
{
inline constexpr const char* Merge = "merge";                             ///< persisted
inline constexpr const char* MergeWithoutPersisting = "merge nopersist";  ///< not persisted
inline constexpr const char* TestAndMerge = "test-and-merge";             ///< persisted, if the test held
inline constexpr const char* Overwrite = "overwrite";                     ///< an erase, too
inline constexpr const char* Restore = "restore";                         ///< to the defaults
}  // namespace operation

/// How a change ended.
enum class ChangeOutcome
{
    Done,     ///< Made, and handed to the persister.
    Refused,  ///< Not made: its client may not make it.
    Failed    ///< Made in memory, where it stays, but the persister has thrown, or memory was short in the middle.
};

/// Hears of each change of a store that made a difference to those who read it, and of those that were refused.
///
/// Thread safety: a change is told on the thread that makes it, with the store's lock held for writing: one at a time,
/// in the order in which they take effect, and before anybody can read what they did. A refusal is told without a lock,
/// at any time.
class IChangeObserver
{
public:
    virtual ~IChangeObserver() = default;

    /// Everybody waits for it: it must be quick, and must not call the store.
    /// @param pOrigin what the caller of the store passed; null for nobody in particular.
    /// @param what one of the texts of `operation`, as the same pointer or another.
    /// @param names in byte order. Of a change, the keys that are new, gone or of another value than before, and the
    ///        groups that hold them, or that came or went without keys. Of a refusal, what was asked for.
    virtual void OnChange(const ChangeOrigin* pOrigin, const char* what, ChangeOutcome outcome,
                          const ChangedNames& names) noexcept = 0;
};

}  // namespace korlo::settings::server
