// What a reader notices of a disk that others wait for.

#include <algorithm>
#include <benchmark/benchmark.h>
#include <chrono>
#include <thread>
#include <vector>

#include "settings/KorloSettingsClient.h"
#include "support/ChildProcess.h"
#include "support/Documents.h"

namespace korlo::benchmarks
{
namespace
{

using Clock = std::chrono::steady_clock;
using core::IniFile;
using settings::KorloSettingsClient;

constexpr const char* Group = "Counters";
constexpr std::chrono::milliseconds ChangeEvery{5};
constexpr std::chrono::milliseconds GetEvery{1};
constexpr std::chrono::seconds Watched{2};  // several saves

/// Changes a setting now and then, so that the server always has something to save.
void KeepChanging(const std::stop_token& stop)
{
    KorloSettingsClient client(KorloSettingsClient::SingleThreaded);
    client.MergeSettings(DocumentOf(Device));  // a user layer of a usual size
    for (int value = 0; !stop.stop_requested(); ++value)
    {
        IniFile change;
        change.SetInt(Group, "value", value);
        client.MergeSettings(change);
        std::this_thread::sleep_for(ChangeEvery);
    }
}

/// How long each get takes from the moment when it is due, in microseconds. Gets are due at a fixed rate: one that
/// waits makes those behind it late, and so all that should have been served meanwhile count, not the one that waited
/// alone. Those that are due still when the time is up count as late as they are.
std::vector<double> WatchGets(const KorloSettingsClient& client)
{
    std::vector<double> times;
    const Clock::time_point begin = Clock::now();
    const Clock::time_point end = begin + Watched;
    for (Clock::time_point due = begin; due < end; due += GetEvery)
    {
        std::this_thread::sleep_until(due);
        if (Clock::now() < end)
        {
            IniFile settings;
            client.GetSettings(Group, settings);
        }
        times.push_back(std::chrono::duration<double, std::micro>(Clock::now() - due).count());
    }
    return times;
}

/// The time of an iteration says nothing.
void BM_GetWhileSaving(benchmark::State& state, const std::string& preloaded)
{
    PinToCore(0);
    for (auto _ : state)
    {
        const KorloServer server({"--save-delay", "100"}, TextOf(Device), preloaded);
        server.Register();
        const std::jthread changer(KeepChanging);
        std::vector<double> times = WatchGets(KorloSettingsClient(KorloSettingsClient::SingleThreaded));
        const auto p99 = times.begin() + static_cast<std::ptrdiff_t>(times.size() * 99 / 100);
        std::nth_element(times.begin(), p99, times.end());
        state.counters["p99_us"] = *p99;
        state.counters["longest_us"] = *std::max_element(times.begin(), times.end());
    }
}

}  // namespace

BENCHMARK_CAPTURE(BM_GetWhileSaving, quick_disk, "")->Iterations(1)->UseRealTime();
BENCHMARK_CAPTURE(BM_GetWhileSaving, slow_disk, KORLO_SLOW_SYNC)->Iterations(1)->UseRealTime();

}  // namespace korlo::benchmarks
