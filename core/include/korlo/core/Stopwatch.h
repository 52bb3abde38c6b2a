#pragma once
// Measuring how long something took.

#include <chrono>
#include <optional>

namespace korlo::core
{

/// Measures elapsed time on the monotonic clock, which no change of the date disturbs.
///
///     const Stopwatch stopwatch(true);
///     Handle(command);
///     pLogger->Trace("Took %f seconds", static_cast<double>(stopwatch.Read()));
///
/// Thread safety: none of its own; reading from several threads at once is fine.
class Stopwatch
{
public:
    /// @param start true: time runs from now on; false: it never does, and the watch reads 0.
    explicit Stopwatch(bool start);

    /// The seconds since the start, 0 if it was not started. Every call reads the clock again.
    float Read() const;

private:
    std::optional<std::chrono::steady_clock::time_point> _start;
};

}  // namespace korlo::core
