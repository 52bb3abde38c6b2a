#pragma once
// What became of the saves.

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "PlainMutex.h"

namespace korlo::daemon
{

/// Hears of each attempt to save, and tells about them while one is under way.
///
/// Thread safety: all methods, from any thread, but Begin and what ends it, one attempt at a time. The lock is held for
/// a few assignments, never while anything is saved: a disk that hangs is when somebody asks.
class SaveRecord
{
public:
    /// How saving by appending goes.
    struct LogFigures
    {
        std::size_t bytes = 0;  ///< of the log
        std::size_t limit = 0;  ///< beyond which it is folded into the user file
        std::size_t folds = 0;  ///< since the start
    };

    struct Figures
    {
        std::uint64_t saves = 0;    ///< that have written
        std::uint64_t skipped = 0;  ///< of a text that was stored already
        std::uint64_t failed = 0;
        std::string lastFailure;                                ///< the reason; empty where none has failed
        std::chrono::system_clock::time_point lastFailureTime;  ///< of `lastFailure`
        bool isUnsaved = false;                                 ///< the last attempt has failed
        std::optional<std::chrono::milliseconds> running;       ///< for how long one has been under way
        LogFigures log;
    };

    /// An attempt begins.
    void Begin() KORLO_EXCLUDES(_mutex);

    // It ends.
    void NoteDone(bool hasWritten) KORLO_EXCLUDES(_mutex);
    void NoteFailed(const char* reason) KORLO_EXCLUDES(_mutex);

    /// What a load or an attempt has made of the log.
    void NoteLog(const LogFigures& log) KORLO_EXCLUDES(_mutex);

    /// How many attempts have begun.
    std::uint64_t CountBegun() const KORLO_EXCLUDES(_mutex);

    Figures GetFigures() const KORLO_EXCLUDES(_mutex);

private:
    using Clock = std::chrono::steady_clock;

    mutable PlainMutex _mutex;
    Figures _figures KORLO_GUARDED_BY(_mutex);                         // without `running`
    std::optional<Clock::time_point> _begin KORLO_GUARDED_BY(_mutex);  // of the attempt that is under way
    std::uint64_t _begun KORLO_GUARDED_BY(_mutex) = 0;
};

}  // namespace korlo::daemon
