// Load, save, copy, look-up, merge and compare of documents, and of one group with very many keys.

#include <benchmark/benchmark.h>
#include <sstream>

#include "support/Documents.h"

namespace korlo::benchmarks
{
namespace
{

using core::IniFile;

void BM_Load(benchmark::State& state, Shape shape)
{
    const std::string& text = TextOf(shape);
    for (auto _ : state)
    {
        IniFile ini;
        ini.LoadFromString(text);
        benchmark::DoNotOptimize(ini.size());
    }
}

void BM_Save(benchmark::State& state, Shape shape)
{
    const IniFile& ini = DocumentOf(shape);
    for (auto _ : state)
    {
        std::ostringstream out;
        ini.SaveToStream(out);
        benchmark::DoNotOptimize(std::move(out).str().size());
    }
}

void BM_Copy(benchmark::State& state, Shape shape)
{
    const IniFile& ini = DocumentOf(shape);
    for (auto _ : state)
    {
        const IniFile copy(ini);
        benchmark::DoNotOptimize(copy.size());
    }
}

void BM_Lookup(benchmark::State& state, Shape shape)
{
    const IniFile& ini = DocumentOf(shape);
    const auto keys = PresentKeys(ini, 4096);
    std::size_t next = 0;
    for (auto _ : state)
    {
        const auto& [group, key] = keys[next++ % keys.size()];
        benchmark::DoNotOptimize(ini.GetValue(group, key).data());
    }
}

void BM_LoadOneGroup(benchmark::State& state)
{
    const std::string text = ShuffledGroup(static_cast<std::size_t>(state.range(0)));
    for (auto _ : state)
    {
        IniFile ini;
        ini.LoadFromString(text);
        benchmark::DoNotOptimize(ini.size());
    }
}

/// Two documents with the same keys, as one big group each.
IniFile OneGroup(const benchmark::State& state)
{
    IniFile ini;
    ini.LoadFromString(ShuffledGroup(static_cast<std::size_t>(state.range(0))));
    return ini;
}

void BM_MergeOneGroup(benchmark::State& state)
{
    const IniFile changes = OneGroup(state);
    IniFile ini = changes;
    for (auto _ : state)
    {
        ini.MergeSettings(changes);
        benchmark::DoNotOptimize(ini.size());
    }
}

void BM_CompareOneGroup(benchmark::State& state)
{
    const IniFile expected = OneGroup(state);
    const IniFile ini = expected;
    for (auto _ : state)
    {
        benchmark::DoNotOptimize(ini.ContainsSettings(expected));
    }
}

void BM_CopyOneGroup(benchmark::State& state)
{
    const IniFile ini = OneGroup(state);
    for (auto _ : state)
    {
        const IniFile copy(ini);
        benchmark::DoNotOptimize(copy.size());
    }
}

}  // namespace

BENCHMARK_CAPTURE(BM_Load, device, Device)->Setup(CleanHeap);
BENCHMARK_CAPTURE(BM_Load, large, Large)->Setup(CleanHeap);
BENCHMARK_CAPTURE(BM_Save, device, Device)->Setup(CleanHeap);
BENCHMARK_CAPTURE(BM_Save, large, Large)->Setup(CleanHeap);
BENCHMARK_CAPTURE(BM_Copy, device, Device)->Setup(CleanHeap);
BENCHMARK_CAPTURE(BM_Copy, large, Large)->Setup(CleanHeap);
BENCHMARK_CAPTURE(BM_Lookup, device, Device)->Setup(CleanHeap);
BENCHMARK_CAPTURE(BM_Lookup, large, Large)->Setup(CleanHeap);
BENCHMARK(BM_LoadOneGroup)->Setup(CleanHeap)->Arg(20000)->Arg(200000);
BENCHMARK(BM_MergeOneGroup)->Setup(CleanHeap)->Arg(20000)->Arg(200000);
BENCHMARK(BM_CompareOneGroup)->Setup(CleanHeap)->Arg(20000)->Arg(200000);
BENCHMARK(BM_CopyOneGroup)->Setup(CleanHeap)->Arg(20000)->Arg(200000);

}  // namespace korlo::benchmarks
