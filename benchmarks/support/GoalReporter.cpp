#include "support/GoalReporter.h"

#include <algorithm>
#include <cstdio>

namespace korlo::benchmarks
{

void GoalReporter::ReportRuns(const std::vector<Run>& reports)
{
    for (const Run& run : reports)
    {
        if (run.run_type != Run::RT_Iteration || run.error_occurred)
        {
            continue;
        }
        const std::string name =
            run.run_name.function_name + (run.run_name.args.empty() ? "" : "/" + run.run_name.args);
        const bool realTime = !run.run_name.time_type.empty();
        _figures[name].push_back(realTime ? run.GetAdjustedRealTime() : run.GetAdjustedCPUTime());
        for (const auto& [counter, figure] : run.counters)
        {
            _figures[name + "#" + counter].push_back(figure.value);
        }
    }
    ConsoleReporter::ReportRuns(reports);
}

void GoalReporter::Finalize()
{
    std::printf("\n%-68s %8s %8s\n", "ratio of medians", "measured", "at most");
    for (const Goal& goal : _goals)
    {
        if (_figures.contains(goal.measured) && (goal.compared == nullptr || _figures.contains(goal.compared)))
        {
            const double ratio = FigureOf(goal.measured) / (goal.compared == nullptr ? 1 : FigureOf(goal.compared));
            std::printf("%-68s %8.3f %8.3f%s\n", goal.promise, ratio, goal.most, ratio <= goal.most ? "" : "  MISSED");
        }
    }
    ConsoleReporter::Finalize();
}

double GoalReporter::FigureOf(const std::string& name)
{
    std::vector<double>& figures = _figures[name];
    const auto middle = figures.begin() + static_cast<std::ptrdiff_t>(figures.size() / 2);
    std::nth_element(figures.begin(), middle, figures.end());
    return *middle;
}

}  // namespace korlo::benchmarks
