// The client over a store in its own process, beside a GKeyFile under a mutex.

#include <benchmark/benchmark.h>
#include <deque>
#include <glib.h>
#include <mutex>

#include "settings/KorloSettingsClient.h"
#include "support/Documents.h"

namespace korlo::benchmarks
{
namespace
{

using core::IniFile;
using settings::GroupNameCollection;
using settings::KorloSettingsClient;

class QuietCallback : public settings::IChangeCallback
{
public:
    void OnChange(const GroupNameCollection&, const IniFile&) override {}
};

const std::string& SomeGroup()
{
    static const std::string name = std::next(DocumentOf(Device).begin(), 321)->first;
    return name;
}

void BM_LocalGet(benchmark::State& state)
{
    const KorloSettingsClient client(KorloSettingsClient::Local, DocumentOf(Device));
    for (auto _ : state)
    {
        IniFile settings;
        client.GetSettings(SomeGroup(), settings);
        benchmark::DoNotOptimize(settings.size());
    }
}

/// Every key and value of one group, as its interface offers them.
void BM_GKeyFileWalk(benchmark::State& state)
{
    GKeyFile* pFile = g_key_file_new();
    g_key_file_load_from_data(pFile, TextOf(Device).data(), TextOf(Device).size(), G_KEY_FILE_NONE, nullptr);
    std::mutex mutex;
    for (auto _ : state)
    {
        const std::lock_guard lock(mutex);
        gsize count = 0;
        gchar** pKeys = g_key_file_get_keys(pFile, SomeGroup().c_str(), &count, nullptr);
        for (gsize key = 0; key < count; ++key)
        {
            gchar* pValue = g_key_file_get_value(pFile, SomeGroup().c_str(), pKeys[key], nullptr);
            benchmark::DoNotOptimize(pValue);
            g_free(pValue);
        }
        g_strfreev(pKeys);
    }
    g_key_file_free(pFile);
}

void BM_LocalChange(benchmark::State& state)
{
    KorloSettingsClient client(KorloSettingsClient::Local, DocumentOf(Device));
    std::deque<QuietCallback> callbacks(static_cast<std::size_t>(state.range(0)));
    auto group = DocumentOf(Device).begin();
    for (QuietCallback& callback : callbacks)
    {
        client.Subscribe(&callback, (group++)->first);
    }
    IniFile changes;
    changes.SetValue(SomeGroup(), "parameter00000", "a changed value of a key");
    for (auto _ : state)
    {
        client.MergeSettings(changes);
    }
}

}  // namespace

BENCHMARK(BM_LocalGet)->Setup(CleanHeap);
BENCHMARK(BM_GKeyFileWalk)->Setup(CleanHeap);
BENCHMARK(BM_LocalChange)->Setup(CleanHeap)->Arg(0)->Arg(100);

}  // namespace korlo::benchmarks
