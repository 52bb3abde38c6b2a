// The same work on documents by others: a bare std::map, GLib's GKeyFile, SimpleIni.

#include <SimpleIni.h>
#include <benchmark/benchmark.h>
#include <glib.h>
#include <memory>

#include "support/Documents.h"

namespace korlo::benchmarks
{
namespace
{

struct FreeKeyFile
{
    void operator()(GKeyFile* pFile) const { g_key_file_free(pFile); }
};

using KeyFile = std::unique_ptr<GKeyFile, FreeKeyFile>;

KeyFile LoadKeyFile(const std::string& text)
{
    KeyFile pFile(g_key_file_new());
    g_key_file_load_from_data(pFile.get(), text.data(), text.size(), G_KEY_FILE_NONE, nullptr);
    return pFile;
}

void BM_BareLoad(benchmark::State& state, Shape shape)
{
    const std::string& text = TextOf(shape);
    for (auto _ : state)
    {
        benchmark::DoNotOptimize(ParseBare(text).size());
    }
}

void BM_BareCopy(benchmark::State& state, Shape shape)
{
    const BareMap map = ParseBare(TextOf(shape));
    for (auto _ : state)
    {
        const BareMap copy(map);
        benchmark::DoNotOptimize(copy.size());
    }
}

void BM_BareLookup(benchmark::State& state, Shape shape)
{
    const BareMap map = ParseBare(TextOf(shape));
    const auto keys = PresentKeys(DocumentOf(shape), 4096);
    std::size_t next = 0;
    for (auto _ : state)
    {
        const auto& [group, key] = keys[next++ % keys.size()];
        benchmark::DoNotOptimize(map.find(group)->second.find(key)->second.data());
    }
}

void BM_GKeyFileLoad(benchmark::State& state, Shape shape)
{
    const std::string& text = TextOf(shape);
    for (auto _ : state)
    {
        benchmark::DoNotOptimize(LoadKeyFile(text).get());
    }
}

void BM_GKeyFileSave(benchmark::State& state, Shape shape)
{
    const KeyFile pFile = LoadKeyFile(TextOf(shape));
    for (auto _ : state)
    {
        gsize length = 0;
        gchar* pText = g_key_file_to_data(pFile.get(), &length, nullptr);
        benchmark::DoNotOptimize(length);
        g_free(pText);
    }
}

/// Its hash tables alone: fetching a value would copy it.
void BM_GKeyFileLookup(benchmark::State& state, Shape shape)
{
    const KeyFile pFile = LoadKeyFile(TextOf(shape));
    const auto keys = PresentKeys(DocumentOf(shape), 4096);
    std::size_t next = 0;
    for (auto _ : state)
    {
        const auto& [group, key] = keys[next++ % keys.size()];
        benchmark::DoNotOptimize(g_key_file_has_key(pFile.get(), group.c_str(), key.c_str(), nullptr));
    }
}

void BM_SimpleIniLoad(benchmark::State& state, Shape shape)
{
    const std::string& text = TextOf(shape);
    for (auto _ : state)
    {
        CSimpleIniCaseA ini;
        ini.LoadData(text.data(), text.size());
        benchmark::DoNotOptimize(ini.IsEmpty());
    }
}

void BM_SimpleIniSave(benchmark::State& state, Shape shape)
{
    CSimpleIniCaseA ini;
    ini.LoadData(TextOf(shape).data(), TextOf(shape).size());
    for (auto _ : state)
    {
        std::string text;
        ini.Save(text);
        benchmark::DoNotOptimize(text.size());
    }
}

}  // namespace

BENCHMARK_CAPTURE(BM_BareLoad, device, Device)->Setup(CleanHeap);
BENCHMARK_CAPTURE(BM_BareLoad, large, Large)->Setup(CleanHeap);
BENCHMARK_CAPTURE(BM_BareCopy, device, Device)->Setup(CleanHeap);
BENCHMARK_CAPTURE(BM_BareCopy, large, Large)->Setup(CleanHeap);
BENCHMARK_CAPTURE(BM_BareLookup, device, Device)->Setup(CleanHeap);
BENCHMARK_CAPTURE(BM_BareLookup, large, Large)->Setup(CleanHeap);
BENCHMARK_CAPTURE(BM_GKeyFileLoad, device, Device)->Setup(CleanHeap);
BENCHMARK_CAPTURE(BM_GKeyFileLoad, large, Large)->Setup(CleanHeap);
BENCHMARK_CAPTURE(BM_GKeyFileSave, device, Device)->Setup(CleanHeap);
BENCHMARK_CAPTURE(BM_GKeyFileSave, large, Large)->Setup(CleanHeap);
BENCHMARK_CAPTURE(BM_GKeyFileLookup, device, Device)->Setup(CleanHeap);
BENCHMARK_CAPTURE(BM_GKeyFileLookup, large, Large)->Setup(CleanHeap);
BENCHMARK_CAPTURE(BM_SimpleIniLoad, device, Device)->Setup(CleanHeap);
BENCHMARK_CAPTURE(BM_SimpleIniLoad, large, Large)->Setup(CleanHeap);
BENCHMARK_CAPTURE(BM_SimpleIniSave, device, Device)->Setup(CleanHeap);
BENCHMARK_CAPTURE(BM_SimpleIniSave, large, Large)->Setup(CleanHeap);

}  // namespace korlo::benchmarks
