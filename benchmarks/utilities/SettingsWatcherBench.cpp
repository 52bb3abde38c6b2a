// Variables that follow settings: what an update costs with nothing new, and after one change among many settings.

#include <benchmark/benchmark.h>
#include <deque>
#include <string>

#include "settings/KorloSettingsClient.h"
#include "settings/SettingsWatcher.h"
#include "support/Documents.h"

namespace korlo::benchmarks
{
namespace
{

using core::IniFile;
using settings::KorloSettingsClient;
using settings::SettingsWatcher;

constexpr int WatchedGroups = 1000;

std::string Group(int number)
{
    return "Group" + std::to_string(100000 + number);
}

IniFile MakeStore(int groups)
{
    IniFile store;
    for (int number = 0; number < groups; ++number)
    {
        store.SetInt(Group(number), "number", number);
    }
    return store;
}

/// One variable in each of a thousand groups of a store, up to date.
struct Following
{
    Following(KorloSettingsClient::OperationMode mode, int groups) : client(mode, MakeStore(groups))
    {
        for (int number = 0; number < WatchedGroups; ++number)
        {
            watcher.AddSetting(Group(number), "number", &numbers.emplace_back());
        }
        watcher.UpdateSettings();
    }

    KorloSettingsClient client;
    std::deque<int> numbers;
    SettingsWatcher watcher{&client};
};

void BM_UpdateNothingNew(benchmark::State& state)
{
    // Locks are cheaper in a process of one thread than they are where a client hears of changes.
    Following following(KorloSettingsClient::LocalMultiThreaded, WatchedGroups);
    for (auto _ : state)
    {
        benchmark::DoNotOptimize(following.watcher.UpdateSettings());
    }
}

void BM_ChangeAndUpdate(benchmark::State& state)
{
    // All of it happens on this thread.
    Following following(KorloSettingsClient::Local, static_cast<int>(state.range(0)));
    const settings::SettingLocator changed(Group(321), "number");
    int value = 0;
    for (auto _ : state)
    {
        following.client.SetValue(changed, std::to_string(++value));
        benchmark::DoNotOptimize(following.watcher.UpdateSettings());
    }
}

/// What every update that finds a change has to do, whatever has changed.
void BM_ReadWatched(benchmark::State& state)
{
    const IniFile mirror = MakeStore(WatchedGroups);
    std::deque<std::string> groups;
    for (int number = 0; number < WatchedGroups; ++number)
    {
        groups.push_back(Group(number));
    }
    const std::string key = "number";
    for (auto _ : state)
    {
        for (const std::string& group : groups)
        {
            benchmark::DoNotOptimize(mirror.GetIntOrDefault(group, key, 0));
        }
    }
}

}  // namespace

BENCHMARK(BM_UpdateNothingNew)->Setup(CleanHeap);
BENCHMARK(BM_ChangeAndUpdate)->Setup(CleanHeap)->Arg(2000)->Arg(200000);
BENCHMARK(BM_ReadWatched)->Setup(CleanHeap);

}  // namespace korlo::benchmarks
