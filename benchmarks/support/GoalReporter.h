#pragma once
// Prints what was measured, and at the end how the figures stand to one another and to what was promised.

#include <benchmark/benchmark.h>
#include <map>
#include <string>
#include <vector>

namespace korlo::benchmarks
{

/// A promise about two figures of one run: ratios hold on any machine, times do not.
struct Goal
{
    const char* promise;
    const char* measured;  // name of the benchmark above the line; "NAME#COUNTER" for a counter of its
    const char* compared;  // and below it; null for a figure that is a promise by itself
    double most;           // that the ratio may be
};

/// The ordinary table, then, from the processor time of each (where several processes meet, from the time that passed),
/// one line for each goal whose two figures were measured.
///
/// Thread safety: none of its own; used by the thread that runs the benchmarks.
class GoalReporter : public benchmark::ConsoleReporter
{
public:
    explicit GoalReporter(std::vector<Goal> goals) : _goals(std::move(goals)) {}

    void ReportRuns(const std::vector<Run>& reports) override;
    void Finalize() override;

private:
    double FigureOf(const std::string& name);

    std::vector<Goal> _goals;
    std::map<std::string, std::vector<double>> _figures;  // of each repetition
};

}  // namespace korlo::benchmarks
