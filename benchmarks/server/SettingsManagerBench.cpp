// The store, small and large: what an operation costs must not depend on the groups that it does not touch.

#include <benchmark/benchmark.h>
#include <deque>
#include <memory>

#include "settings/server/SettingsManager.h"
#include "support/Documents.h"

namespace korlo::benchmarks
{
namespace
{

using core::IniFile;
using settings::GroupNameCollection;
using settings::server::ISettingsPersister;
using settings::server::SettingsCombiner;
using settings::server::SettingsManager;

constexpr const char* Group = "Network/Interface007";
constexpr const char* Key = "parameter00003";

class DefaultsOnly : public ISettingsPersister
{
public:
    explicit DefaultsOnly(IniFile defaults) : _defaults(std::move(defaults)) {}
    void LoadDefaultSettings(SettingsCombiner& combiner) override { combiner.LoadFromIni(_defaults); }
    void LoadUserSettings(SettingsCombiner&) override {}
    void SaveUserSettings(const IniFile&) override {}

private:
    IniFile _defaults;
};

class CountingCallback : public settings::IChangeCallback
{
public:
    void OnChange(const GroupNameCollection& changedGroups, const IniFile&) override { _count += changedGroups.size(); }

private:
    std::size_t _count = 0;
};

/// A store of that many groups; made once for all benchmarks of that size.
SettingsManager& StoreOf(long groups)
{
    struct Store
    {
        explicit Store(std::size_t size) : persister(StoreDocument(size)), manager(&persister, nullptr, nullptr, false)
        {
        }

        DefaultsOnly persister;
        SettingsManager manager;
    };
    static std::map<long, std::unique_ptr<Store>> stores;
    auto& pStore = stores[groups];
    if (!pStore)
    {
        pStore = std::make_unique<Store>(static_cast<std::size_t>(groups));
    }
    return pStore->manager;
}

IniFile OneKey(const std::string& value)
{
    IniFile changes;
    changes.SetValue(Group, Key, value);
    return changes;
}

void BM_StoreGet(benchmark::State& state)
{
    SettingsManager& store = StoreOf(state.range(0));
    for (auto _ : state)
    {
        IniFile out;
        store.GetGroups(out, Group);
        benchmark::DoNotOptimize(out.size());
    }
}

void BM_StoreMerge(benchmark::State& state)
{
    SettingsManager& store = StoreOf(state.range(0));
    const IniFile changes = OneKey("a changed value of a key");
    for (auto _ : state)
    {
        store.MergeSettings(changes, 0);
    }
}

void BM_StoreTestAndMerge(benchmark::State& state)
{
    SettingsManager& store = StoreOf(state.range(0));
    const IniFile changes = OneKey("a changed value of a key");
    store.MergeSettings(changes, 0);
    for (auto _ : state)
    {
        benchmark::DoNotOptimize(store.TestAndMerge(changes, changes));
    }
}

void BM_StoreNotification(benchmark::State& state)
{
    SettingsManager& store = StoreOf(state.range(0));
    CountingCallback callback;
    store.Subscribe(&callback, "Network/*");
    const IniFile changes = OneKey("a changed value of a key");
    for (auto _ : state)
    {
        store.MergeSettings(changes, 0);
    }
    store.Unsubscribe(&callback);
}

/// A change that some subscribers hear of, or, with the prefix "Other/", that none of them does.
void ChangeWithSubscribers(benchmark::State& state, const std::string& prefix)
{
    SettingsManager store;
    std::deque<CountingCallback> callbacks(static_cast<std::size_t>(state.range(0)));
    std::size_t number = 0;
    for (CountingCallback& callback : callbacks)
    {
        store.Subscribe(&callback, prefix.empty() ? Group : prefix + std::to_string(number++));
    }
    const IniFile changes = OneKey("a changed value of a key");
    for (auto _ : state)
    {
        store.MergeSettings(changes, 0);
    }
}

void BM_ChangeHeardByAll(benchmark::State& state)
{
    ChangeWithSubscribers(state, "");
}

void BM_ChangeHeardByNone(benchmark::State& state)
{
    ChangeWithSubscribers(state, "Other/");
}

}  // namespace

BENCHMARK(BM_StoreGet)->Setup(CleanHeap)->Arg(2000)->Arg(200000);
BENCHMARK(BM_StoreMerge)->Setup(CleanHeap)->Arg(2000)->Arg(200000);
BENCHMARK(BM_StoreTestAndMerge)->Setup(CleanHeap)->Arg(2000)->Arg(200000);
BENCHMARK(BM_StoreNotification)->Setup(CleanHeap)->Arg(2000)->Arg(200000);
BENCHMARK(BM_ChangeHeardByAll)->Setup(CleanHeap)->Arg(1)->Arg(10)->Arg(100)->Arg(1000);
BENCHMARK(BM_ChangeHeardByNone)->Setup(CleanHeap)->Arg(0)->Arg(1)->Arg(10)->Arg(100)->Arg(1000);

}  // namespace korlo::benchmarks
