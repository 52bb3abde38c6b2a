// Processes that contend for the units of one resource.

#include <array>
#include <benchmark/benchmark.h>
#include <list>
#include <stdexcept>
#include <string>
#include <sys/socket.h>
#include <unistd.h>

#include "settings/KorloSettingsClient.h"
#include "settings/ResourceReserver.h"
#include "support/ChildProcess.h"
#include "support/Documents.h"

namespace korlo::benchmarks
{
namespace
{

using settings::KorloSettingsClient;
using settings::ResourceReserver;

constexpr const char* Resource = "Bus";
constexpr int ReservationsEach = 50;

std::string ConsumerName(std::int64_t number)
{
    return "consumer" + std::to_string(number);
}

/// The units suffice for all, so that every reservation succeeds once it is not disturbed.
std::string Defaults(std::int64_t consumers)
{
    std::string text = std::string("[Resources/") + Resource + "]\nTotalAvailable=100\n";
    for (std::int64_t number = 0; number < consumers; ++number)
    {
        text += std::string("[Resources/") + Resource + "/Consumers/" + ConsumerName(number) + "]\nCurrentlyUsed=0\n";
    }
    return text;
}

/// A process that takes a unit and gives it back, in turn, so often each time that it is told to.
///
/// Thread safety: none of its own; the owner guards it.
class Consumer
{
public:
    /// Call it while this process has one thread.
    explicit Consumer(const std::string& name) : _ends(MakeEnds()), _process([this, &name] { Serve(name); })
    {
        close(_ends[1]);  // so that the end of the process shows
    }

    Consumer(const Consumer&) = delete;
    Consumer& operator=(const Consumer&) = delete;

    ~Consumer() { close(_ends[0]); }

    void Begin() const { SendAll(_ends[0], "!"); }
    void AwaitEnd() const { ReceiveExactly(_ends[0], 1); }

private:
    static std::array<int, 2> MakeEnds()
    {
        std::array<int, 2> ends{};
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0)
        {
            throw std::runtime_error("socketpair failed");
        }
        return ends;
    }

    void Serve(const std::string& name) const
    {
        PinToCore(0);
        KorloSettingsClient client(KorloSettingsClient::SingleThreaded);
        ResourceReserver reserver(&client, Resource, name);
        reserver.GetCurrentUsage();  // connects
        SendAll(_ends[1], "!");
        for (;;)
        {
            ReceiveExactly(_ends[1], 1);
            for (int count = 0; count < ReservationsEach; ++count)
            {
                reserver.TrySetUsage((count + 1) % 2);
            }
            SendAll(_ends[1], "!");
        }
    }

    const std::array<int, 2> _ends;  // ours and that of the process
    ChildProcess _process;
};

/// An iteration is all reservations of all processes.
void BM_ContendedReservation(benchmark::State& state)
{
    PinToCore(0);
    const KorloServer server({"--save-delay", "600000"}, Defaults(state.range(0)));
    server.Register();
    std::list<Consumer> consumers;
    for (std::int64_t number = 0; number < state.range(0); ++number)
    {
        consumers.emplace_back(ConsumerName(number)).AwaitEnd();
    }
    for (auto _ : state)
    {
        for (const Consumer& consumer : consumers)
        {
            consumer.Begin();
        }
        for (const Consumer& consumer : consumers)
        {
            consumer.AwaitEnd();
        }
    }
    state.counters["successes"] = benchmark::Counter(
        static_cast<double>(state.iterations() * state.range(0) * ReservationsEach), benchmark::Counter::kIsRate);
}

}  // namespace

BENCHMARK(BM_ContendedReservation)->RangeMultiplier(2)->Range(1, 16)->UseRealTime();

}  // namespace korlo::benchmarks
