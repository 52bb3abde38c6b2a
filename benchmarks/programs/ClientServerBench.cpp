// Requests and responses through our clients and server, beside bare sockets and Redis doing the like.

#include <benchmark/benchmark.h>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <sstream>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

#include "settings/KorloSettingsClient.h"
#include "support/ChildProcess.h"
#include "support/Documents.h"
#include "support/RedisClient.h"
#include "support/RulesFile.h"

namespace korlo::benchmarks
{
namespace
{

using core::IniFile;
using settings::KorloSettingsClient;

const std::string& SomeGroup()
{
    static const std::string name = std::next(DocumentOf(Device).begin(), 321)->first;
    return name;
}

std::string GetRequest()
{
    return "get delimited\n" + SomeGroup() + "\n.\n";
}

std::size_t GetResponseBytes()
{
    std::ostringstream body;
    DocumentOf(Device).SaveGroupToStream(body, SomeGroup());
    return body.str().size() + std::string("data\n.\n").size();
}

void FillRedis(RedisClient& redis)
{
    for (const auto& [key, value] : DocumentOf(Device)[SomeGroup()])
    {
        redis.Run("HSET %s %s %s", SomeGroup().c_str(), key.c_str(), value.c_str());
    }
}

/// One get, by whatever stands behind it.
using Get = std::function<void()>;

Get GetBy(const KorloSettingsClient& client)
{
    return [&client] {
        IniFile settings;
        client.GetSettings(SomeGroup(), settings);
        benchmark::DoNotOptimize(settings.size());
    };
}

void Repeat(benchmark::State& state, const Get& get)
{
    PinToCore(0);
    get();  // connects
    for (auto _ : state)
    {
        get();
    }
}

void BM_FloorGet(benchmark::State& state)
{
    const FloorServer server(GetRequest().size(), GetResponseBytes());
    const int socket = ConnectTo(server.GetPort());
    Repeat(state, [socket] {
        SendAll(socket, GetRequest());
        ReceiveExactly(socket, GetResponseBytes());
    });
    close(socket);
}

/// A reader thread hands each response to the caller through a mutex and a condition.
void GetByHand(benchmark::State& state, std::uint16_t port)
{
    const int socket = ConnectTo(port);
    std::mutex mutex;
    std::condition_variable arrived;
    bool there = false;
    std::thread reader([&] {
        std::string buffer(65536, '\0');
        for (std::size_t waiting = 0;;)
        {
            const ssize_t got = recv(socket, buffer.data(), buffer.size(), 0);
            if (got <= 0)
            {
                return;
            }
            waiting += static_cast<std::size_t>(got);
            if (waiting >= GetResponseBytes())
            {
                waiting -= GetResponseBytes();
                const std::lock_guard lock(mutex);
                there = true;
                arrived.notify_one();
            }
        }
    });
    Repeat(state, [&] {
        SendAll(socket, GetRequest());
        std::unique_lock lock(mutex);
        arrived.wait(lock, [&] { return there; });
        there = false;
    });
    shutdown(socket, SHUT_RDWR);
    reader.join();
    close(socket);
}

void BM_FloorHandOffGet(benchmark::State& state)
{
    PinToCore(0);
    const FloorServer server(GetRequest().size(), GetResponseBytes());
    GetByHand(state, server.GetPort());
}

/// What a client of our server costs that is written by hand for this one request, and leaves the answer as it comes.
void BM_HandWrittenGet(benchmark::State& state)
{
    PinToCore(0);
    const KorloServer server({});
    GetByHand(state, server.GetPort());
}

void BM_TcpGet(benchmark::State& state, KorloSettingsClient::OperationMode mode)
{
    PinToCore(0);
    const KorloServer server({});
    server.Register();
    const KorloSettingsClient client(mode);
    Repeat(state, GetBy(client));
}

void BM_UnixGet(benchmark::State& state, KorloSettingsClient::OperationMode mode)
{
    PinToCore(0);
    const KorloServer server({"--listen", "unix:%/socket"});
    server.RegisterSocket();
    const KorloSettingsClient client(mode);
    Repeat(state, GetBy(client));
}

/// Over TCP, where nobody may do everything because of who they are.
void BM_GetUnderRules(benchmark::State& state)
{
    PinToCore(0);
    const RulesFile rules(static_cast<int>(state.range(0)), SomeGroup());
    const KorloServer server({"--access", rules.GetPath()});
    server.Register();
    const KorloSettingsClient client(KorloSettingsClient::SingleThreaded);
    Repeat(state, GetBy(client));
}

void BM_PipeGet(benchmark::State& state, KorloSettingsClient::OperationMode mode)
{
    PinToCore(0);
    KorloSettingsClient client(mode);
    client.MergeSettings(DocumentOf(Device));
    Repeat(state, GetBy(client));
}

void BM_RedisGet(benchmark::State& state)
{
    const RedisServer server;
    RedisClient redis(server.GetPort());
    FillRedis(redis);
    Repeat(state, [&redis] { benchmark::DoNotOptimize(redis.Run("HGETALL %s", SomeGroup().c_str()).get()); });
}

void BM_RedisUnixGet(benchmark::State& state)
{
    const RedisServer server;
    RedisClient redis(server.GetSocketPath());
    FillRedis(redis);
    Repeat(state, [&redis] { benchmark::DoNotOptimize(redis.Run("HGETALL %s", SomeGroup().c_str()).get()); });
}

/// Many clients at once, each on a thread of its own with a connection of its own. Every iteration is so many requests
/// by each.
void RunAtOnce(benchmark::State& state, const ChildProcess& server, const std::function<Get()>& makeClient)
{
    constexpr int requestsEach = 100;
    std::vector<Get> clients;
    for (long number = 0; number < state.range(0); ++number)
    {
        clients.push_back(makeClient());
        clients.back()();
    }
    const double cpuBefore = server.CpuSeconds();
    for (auto _ : state)
    {
        std::vector<std::jthread> threads;
        for (const Get& client : clients)
        {
            threads.emplace_back([&client] {
                for (int request = 0; request < requestsEach; ++request)
                {
                    client();
                }
            });
        }
    }
    const auto requests = static_cast<double>(state.iterations() * state.range(0) * requestsEach);
    state.counters["requests"] = benchmark::Counter(requests, benchmark::Counter::kIsRate);
    state.counters["server_cpu_us"] = (server.CpuSeconds() - cpuBefore) * 1e6 / requests;
}

void BM_TcpGetAtOnce(benchmark::State& state)
{
    PinToCore(0);
    const KorloServer server({});
    server.Register();
    RunAtOnce(state, server.GetProcess(), [] {
        const auto pClient = std::make_shared<KorloSettingsClient>(KorloSettingsClient::SingleThreaded);
        return [pClient] { GetBy (*pClient)(); };
    });
}

void BM_RedisGetAtOnce(benchmark::State& state)
{
    PinToCore(0);
    const RedisServer server;
    RedisClient filler(server.GetPort());
    FillRedis(filler);
    RunAtOnce(state, server.GetProcess(), [&server] {
        const auto pClient = std::make_shared<RedisClient>(server.GetPort());
        return [pClient] { benchmark::DoNotOptimize(pClient->Run("HGETALL %s", SomeGroup().c_str()).get()); };
    });
}

}  // namespace

BENCHMARK(BM_FloorGet)->UseRealTime();
BENCHMARK(BM_FloorHandOffGet)->UseRealTime();
BENCHMARK(BM_HandWrittenGet)->UseRealTime();
BENCHMARK_CAPTURE(BM_TcpGet, single, KorloSettingsClient::SingleThreaded)->UseRealTime();
BENCHMARK_CAPTURE(BM_TcpGet, multi, KorloSettingsClient::MultiThreaded)->UseRealTime();
BENCHMARK_CAPTURE(BM_UnixGet, single, KorloSettingsClient::SingleThreaded)->UseRealTime();
BENCHMARK_CAPTURE(BM_UnixGet, multi, KorloSettingsClient::MultiThreaded)->UseRealTime();
BENCHMARK(BM_GetUnderRules)->Arg(100)->UseRealTime();
BENCHMARK_CAPTURE(BM_PipeGet, single, KorloSettingsClient::LocalSingleThreaded)->UseRealTime();
BENCHMARK_CAPTURE(BM_PipeGet, multi, KorloSettingsClient::LocalMultiThreaded)->UseRealTime();
BENCHMARK(BM_RedisGet)->UseRealTime();
BENCHMARK(BM_RedisUnixGet)->UseRealTime();
BENCHMARK(BM_TcpGetAtOnce)->Arg(8)->Arg(32)->UseRealTime();
BENCHMARK(BM_RedisGetAtOnce)->Arg(8)->Arg(32)->UseRealTime();

}  // namespace korlo::benchmarks
