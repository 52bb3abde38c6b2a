// Heap of a loaded document for each of its keys, as the allocator counts it. The time of these says nothing.

#include <benchmark/benchmark.h>
#include <malloc.h>

#include "support/Documents.h"

namespace korlo::benchmarks
{
namespace
{

template <typename Load>
void CountHeap(benchmark::State& state, const Shape& shape, const Load& load)
{
    for (auto _ : state)
    {
        const std::size_t before = mallinfo2().uordblks + mallinfo2().hblkhd;
        const auto document = load(TextOf(shape));
        const std::size_t after = mallinfo2().uordblks + mallinfo2().hblkhd;
        benchmark::DoNotOptimize(document.size());
        state.counters["heap_per_key"] =
            static_cast<double>(after - before) / static_cast<double>(shape.groups * shape.keysEach);
    }
}

void BM_Heap(benchmark::State& state, Shape shape)
{
    CountHeap(state, shape, [](const std::string& text) {
        core::IniFile ini;
        ini.LoadFromString(text);
        return ini;
    });
}

void BM_BareHeap(benchmark::State& state, Shape shape)
{
    CountHeap(state, shape, ParseBare);
}

}  // namespace

BENCHMARK_CAPTURE(BM_Heap, device, Device)->Setup(CleanHeap)->Iterations(1);
BENCHMARK_CAPTURE(BM_Heap, large, Large)->Setup(CleanHeap)->Iterations(1);
BENCHMARK_CAPTURE(BM_BareHeap, device, Device)->Setup(CleanHeap)->Iterations(1);
BENCHMARK_CAPTURE(BM_BareHeap, large, Large)->Setup(CleanHeap)->Iterations(1);

}  // namespace korlo::benchmarks
