// Selecting groups by names and patterns.

#include <benchmark/benchmark.h>

#include "settings/common/GroupNameMatcher.h"
#include "support/Documents.h"

namespace korlo::benchmarks
{
namespace
{

using settings::GroupNameCollection;
using settings::common::GroupNameMatcher;

void BM_SelectByPatterns(benchmark::State& state)
{
    const core::IniFile& ini = DocumentOf(Large);
    GroupNameMatcher matcher;
    for (long pattern = 0; pattern < state.range(0); ++pattern)
    {
        matcher.AddNameOrPattern("Subsystem" + std::to_string(100 + pattern).substr(1) + "*/Unit*7");
    }
    for (auto _ : state)
    {
        GroupNameCollection matched;
        matcher.GetMatchingGroups(ini, matched);
        benchmark::DoNotOptimize(matched.size());
    }
}

/// The groups that it selects are the same 64, however many there are beside them.
void BM_SelectByPrefix(benchmark::State& state)
{
    const core::IniFile ini = StoreDocument(static_cast<std::size_t>(state.range(0)));
    GroupNameMatcher matcher;
    matcher.AddNameOrPattern("Network/*");
    for (auto _ : state)
    {
        GroupNameCollection matched;
        matcher.GetMatchingGroups(ini, matched);
        benchmark::DoNotOptimize(matched.size());
    }
}

}  // namespace

BENCHMARK(BM_SelectByPatterns)->Setup(CleanHeap)->Arg(1)->Arg(10)->Arg(100)->Arg(1000);
BENCHMARK(BM_SelectByPrefix)->Setup(CleanHeap)->Arg(2000)->Arg(200000);

}  // namespace korlo::benchmarks
