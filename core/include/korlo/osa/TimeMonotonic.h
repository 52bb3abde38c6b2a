#pragma once
// The clock that only runs forward.

#include <compare>
#include <cstdint>

namespace korlo::osa
{

/// A reading of the monotonic clock, counted from an arbitrary moment. Later readings compare greater or equal.
///
/// Thread safety: none of its own; the owner guards it.
struct TimeStruct
{
    std::int64_t seconds = 0;      ///< since that moment
    std::int32_t nanoseconds = 0;  ///< 0 to 999999999

    auto operator<=>(const TimeStruct&) const = default;
};

/// Fills `time` from the monotonic clock, which nobody can set. Callable from any thread.
void TimeMonotonic(TimeStruct& time);

}  // namespace korlo::osa
