// The client over a store in its own process, beside a GKeyFile under a mutex and bare maps under a lock.

#include <benchmark/benchmark.h>
#include <deque>
#include <glib.h>
#include <mutex>
#include <shared_mutex>

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

/// What a store is at the least: the settings, the layer of what was changed, and a lock for many readers.
class BareStore
{
public:
    explicit BareStore(BareMap settings) : _settings(std::move(settings)) {}

    void Merge(const BareMap& changes)
    {
        const std::unique_lock lock(_mutex);
        MergeInto(_settings, changes);
        MergeInto(_changed, changes);
    }

    bool TestAndMerge(const BareMap& expected, const BareMap& changes)
    {
        const std::unique_lock lock(_mutex);
        if (!Contains(expected))
        {
            return false;
        }
        MergeInto(_settings, changes);
        MergeInto(_changed, changes);
        return true;
    }

private:
    static void MergeInto(BareMap& layer, const BareMap& changes)
    {
        for (const auto& [group, values] : changes)
        {
            auto& mine = layer[group];
            for (const auto& [key, value] : values)
            {
                mine[key] = value;
            }
        }
    }

    bool Contains(const BareMap& expected) const
    {
        for (const auto& [group, values] : expected)
        {
            const auto mine = _settings.find(group);
            for (const auto& [key, value] : values)
            {
                if (mine == _settings.end())
                {
                    return false;
                }
                const auto found = mine->second.find(key);
                if (found == mine->second.end() || found->second != value)
                {
                    return false;
                }
            }
        }
        return true;
    }

    std::shared_mutex _mutex;
    BareMap _settings;
    BareMap _changed;
};

const std::string& SomeGroup()
{
    static const std::string name = std::next(DocumentOf(Device).begin(), 321)->first;
    return name;
}

const std::string& SomeKey()
{
    static const std::string name = std::next(DocumentOf(Device)[SomeGroup()].begin(), 3)->first;
    return name;
}

IniFile SomeChange(const std::string& value)
{
    IniFile changes;
    changes.SetValue(SomeGroup(), SomeKey(), value);
    return changes;
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
    const IniFile changes = SomeChange("a changed value of a key");
    for (auto _ : state)
    {
        client.MergeSettings(changes);
    }
}

void BM_LocalMerge(benchmark::State& state)
{
    KorloSettingsClient client(KorloSettingsClient::Local, DocumentOf(Device));
    const IniFile changes = SomeChange("a changed value of a key");
    for (auto _ : state)
    {
        client.MergeSettings(changes);
    }
}

void BM_BareMerge(benchmark::State& state)
{
    BareStore store(ParseBare(TextOf(Device)));
    const BareMap changes{{SomeGroup(), {{SomeKey(), "a changed value of a key"}}}};
    for (auto _ : state)
    {
        store.Merge(changes);
    }
}

/// Back and forth between two values.
void BM_LocalTestAndMerge(benchmark::State& state)
{
    KorloSettingsClient client(KorloSettingsClient::Local, DocumentOf(Device));
    IniFile now = SomeChange("a changed value of a key");
    IniFile next = SomeChange("another value of that key");
    client.MergeSettings(now);
    for (auto _ : state)
    {
        benchmark::DoNotOptimize(client.TestAndMerge(now, next));
        std::swap(now, next);
    }
}

void BM_BareTestAndMerge(benchmark::State& state)
{
    BareStore store(ParseBare(TextOf(Device)));
    BareMap now{{SomeGroup(), {{SomeKey(), "a changed value of a key"}}}};
    BareMap next{{SomeGroup(), {{SomeKey(), "another value of that key"}}}};
    store.Merge(now);
    for (auto _ : state)
    {
        benchmark::DoNotOptimize(store.TestAndMerge(now, next));
        std::swap(now, next);
    }
}

}  // namespace

BENCHMARK(BM_LocalGet)->Setup(CleanHeap);
BENCHMARK(BM_GKeyFileWalk)->Setup(CleanHeap);
BENCHMARK(BM_LocalChange)->Setup(CleanHeap)->Arg(0)->Arg(100);
BENCHMARK(BM_LocalMerge)->Setup(CleanHeap);
BENCHMARK(BM_BareMerge)->Setup(CleanHeap);
BENCHMARK(BM_LocalTestAndMerge)->Setup(CleanHeap);
BENCHMARK(BM_BareTestAndMerge)->Setup(CleanHeap);

}  // namespace korlo::benchmarks
