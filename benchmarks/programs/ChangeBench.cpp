// Changes: merges, test-and-merges with and without contention, and what it costs to have them on the disk.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <memory>
#include <thread>
#include <unistd.h>

#include "settings/KorloSettingsClient.h"
#include "support/ChildProcess.h"
#include "support/Documents.h"
#include "support/RedisClient.h"

namespace korlo::benchmarks
{
namespace
{

using core::IniFile;
using settings::KorloSettingsClient;

constexpr const char* Group = "Counters";
constexpr const char* Key = "value";
const std::vector<std::string> NearlyNeverSave = {"--save-delay", "600000"};
constexpr unsigned int DoNotPersist = 1;

IniFile Counter(int value)
{
    IniFile ini;
    ini.SetInt(Group, Key, value);
    return ini;
}

/// Raises the counter by one; false when somebody else was faster.
bool Increment(KorloSettingsClient& client)
{
    IniFile seen;
    client.GetSettings(Group, seen);
    return client.TestAndMerge(seen, Counter(seen.GetIntOrDefault(Group, Key, 0) + 1));
}

bool Increment(RedisClient& redis)
{
    redis.Append("WATCH %s", Group);
    redis.Append("HGET %s %s", Group, Key);
    redis.TakeReply();
    const auto pSeen = redis.TakeReply();
    const int value = pSeen->str == nullptr ? 0 : std::atoi(pSeen->str);
    redis.Append("MULTI");
    redis.Append("HSET %s %s %d", Group, Key, value + 1);
    redis.Append("EXEC");
    redis.TakeReply();
    redis.TakeReply();
    return redis.TakeReply()->type == REDIS_REPLY_ARRAY;
}

void BM_Increment(benchmark::State& state, KorloSettingsClient::OperationMode mode)
{
    PinToCore(0);
    const KorloServer server(NearlyNeverSave);
    server.Register();
    KorloSettingsClient client(mode);
    client.MergeSettings(Counter(0));
    for (auto _ : state)
    {
        benchmark::DoNotOptimize(Increment(client));
    }
}

void BM_PipeIncrement(benchmark::State& state)
{
    PinToCore(0);
    KorloSettingsClient client(KorloSettingsClient::LocalSingleThreaded);
    client.MergeSettings(Counter(0));
    for (auto _ : state)
    {
        benchmark::DoNotOptimize(Increment(client));
    }
}

void BM_RedisIncrement(benchmark::State& state)
{
    PinToCore(0);
    const RedisServer server;
    RedisClient redis(server.GetPort());
    for (auto _ : state)
    {
        benchmark::DoNotOptimize(Increment(redis));
    }
}

/// Eight clients raise one counter until each has raised it so often; an iteration is all of it.
template <typename Client>
void Contend(benchmark::State& state, const std::function<std::unique_ptr<Client>()>& connect)
{
    constexpr int clientCount = 8;
    constexpr int stepsEach = 50;
    std::vector<std::unique_ptr<Client>> clients;
    for (int number = 0; number < clientCount; ++number)
    {
        clients.push_back(connect());
        Increment(*clients.back());
    }
    for (auto _ : state)
    {
        std::vector<std::jthread> threads;
        for (const auto& pClient : clients)
        {
            threads.emplace_back([&pClient] {
                for (int step = 0; step < stepsEach; step += Increment(*pClient) ? 1 : 0)
                {
                }
            });
        }
    }
    state.counters["increments"] = benchmark::Counter(static_cast<double>(state.iterations() * clientCount * stepsEach),
                                                      benchmark::Counter::kIsRate);
}

void BM_ContendedIncrement(benchmark::State& state)
{
    PinToCore(0);
    const KorloServer server(NearlyNeverSave);
    server.Register();
    Contend<KorloSettingsClient>(
        state, [] { return std::make_unique<KorloSettingsClient>(KorloSettingsClient::SingleThreaded); });
}

void BM_RedisContendedIncrement(benchmark::State& state)
{
    PinToCore(0);
    const RedisServer server;
    Contend<RedisClient>(state, [&server] { return std::make_unique<RedisClient>(server.GetPort()); });
}

/// Merges wait for nothing; a read at the end of each hundred tells that they have been carried out.
void MergeMany(benchmark::State& state, const std::vector<std::string>& options, unsigned int flags)
{
    constexpr int mergesEach = 100;
    PinToCore(0);
    const KorloServer server(options);
    server.Register();
    KorloSettingsClient client(KorloSettingsClient::SingleThreaded);
    int value = 0;
    for (auto _ : state)
    {
        for (int merge = 0; merge < mergesEach; ++merge)
        {
            client.MergeSettings(Counter(++value), flags);
        }
        benchmark::DoNotOptimize(client.GetValue("[Counters]value").size());
    }
}

void BM_MergeUnpersisted(benchmark::State& state)
{
    MergeMany(state, {}, DoNotPersist);
}

void BM_MergeDelayed(benchmark::State& state)
{
    MergeMany(state, {"--save-delay", "100"}, 0);
}

/// A server with a control door, so that it keeps a journal unless the options say otherwise.
std::vector<std::string> WithControlDoor(std::vector<std::string> options)
{
    const std::string path = "/tmp/korlo-bench-control-" + std::to_string(getpid());
    options.insert(options.end(), {"--control", path});
    return options;
}

void BM_MergeWithJournal(benchmark::State& state)
{
    MergeMany(state, WithControlDoor({}), DoNotPersist);
}

void BM_MergeWithoutJournal(benchmark::State& state)
{
    MergeMany(state, WithControlDoor({"--journal", "0"}), DoNotPersist);
}

void BM_RedisHset(benchmark::State& state)
{
    constexpr int setsEach = 100;
    PinToCore(0);
    const RedisServer server;
    RedisClient redis(server.GetPort());
    int value = 0;
    for (auto _ : state)
    {
        for (int set = 0; set < setsEach; ++set)
        {
            redis.Append("HSET %s %s %d", Group, Key, ++value);
        }
        for (int set = 0; set < setsEach; ++set)
        {
            redis.TakeReply();
        }
    }
}

constexpr int PlainChanges = 100;

/// A plain client sends a hundred changes in one write, and waits for what tells that they have been carried out.
void SendInOneWrite(benchmark::State& state, std::uint16_t port, const std::string& requests, std::size_t answerBytes)
{
    const int socket = ConnectTo(port);
    for (auto _ : state)
    {
        SendAll(socket, requests);
        ReceiveExactly(socket, answerBytes);
    }
    close(socket);
}

void BM_PlainMerge(benchmark::State& state)
{
    PinToCore(0);
    const KorloServer server({});
    std::string requests;
    for (int change = 100; change < 100 + PlainChanges; ++change)
    {
        requests += "merge nopersist\n[Counters]\nvalue=" + std::to_string(change) + "\n.\n";
    }
    requests += "get delimited\nCounters\n.\n";
    SendInOneWrite(state, server.GetPort(), requests, std::string("data\n[Counters]\nvalue=100\n.\n").size());
}

void BM_RedisPlainHset(benchmark::State& state)
{
    PinToCore(0);
    const RedisServer server;
    std::string requests = "*4\r\n$4\r\nHSET\r\n$8\r\nCounters\r\n$5\r\nvalue\r\n$1\r\n0\r\n";
    const int socket = ConnectTo(server.GetPort());
    const std::string answer = ":0\r\n";
    SendAll(socket, requests);
    ReceiveExactly(socket, answer.size());  // the field is there: no change below adds it
    close(socket);
    requests.clear();
    for (int change = 100; change < 100 + PlainChanges; ++change)
    {
        requests += "*4\r\n$4\r\nHSET\r\n$8\r\nCounters\r\n$5\r\nvalue\r\n$3\r\n" + std::to_string(change) + "\r\n";
    }
    SendInOneWrite(state, server.GetPort(), requests, PlainChanges * answer.size());
}

/// Each change on the disk before it is answered.
void BM_ChangeOnDisk(benchmark::State& state, const std::string& saveBy)
{
    PinToCore(0);
    const KorloServer server({"--save-by", saveBy});
    server.Register();
    KorloSettingsClient client(KorloSettingsClient::SingleThreaded);
    client.MergeSettings(DocumentOf(Device));  // a user layer of a usual size
    client.MergeSettings(Counter(0));
    int value = 0;
    for (auto _ : state)
    {
        if (!client.TestAndMerge(Counter(value), Counter(value + 1)))
        {
            state.SkipWithError("the change was refused");
            break;
        }
        ++value;
    }
}

void BM_RedisChangeOnDisk(benchmark::State& state)
{
    PinToCore(0);
    const RedisServer server(RedisServer::EachChange);
    RedisClient redis(server.GetPort());
    int value = 0;
    for (auto _ : state)
    {
        benchmark::DoNotOptimize(redis.Run("HSET %s %s %d", Group, Key, ++value));
    }
}

/// A folder on the disk that the servers use, for one benchmark; empty when there is none.
class DiskFolder
{
public:
    DiskFolder()
    {
        if (mkdtemp(_path.data()) == nullptr)
        {
            _path.clear();
        }
    }
    DiskFolder(const DiskFolder&) = delete;
    DiskFolder& operator=(const DiskFolder&) = delete;
    ~DiskFolder()
    {
        std::error_code ignored;
        std::filesystem::remove_all(_path, ignored);
    }

    const std::string& GetPath() const { return _path; }

private:
    std::string _path = "/var/tmp/korlo-bench-XXXXXX";
};

/// The disk's own part of a change that is appended: a line, and its sync.
void BM_BareAppend(benchmark::State& state)
{
    const DiskFolder folder;
    const int file = open((folder.GetPath() + "/log").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (file < 0)
    {
        state.SkipWithError("no file in the temporary folder");
        return;
    }
    const std::string line = "a change of one value takes about as many bytes as this\n";
    for (auto _ : state)
    {
        benchmark::DoNotOptimize(write(file, line.data(), line.size()));
        fdatasync(file);
    }
    close(file);
}

/// The disk's own part of one that replaces: write, sync, rename, sync of the folder, for a file of that size.
void BM_BareReplacement(benchmark::State& state)
{
    const std::string& text = TextOf(Device);
    const DiskFolder temporary;
    const std::string& folder = temporary.GetPath();
    if (folder.empty())
    {
        state.SkipWithError("no temporary folder");
        return;
    }
    for (auto _ : state)
    {
        const int file = open((folder + "/new").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        benchmark::DoNotOptimize(write(file, text.data(), text.size()));
        fsync(file);
        close(file);
        rename((folder + "/new").c_str(), (folder + "/file").c_str());
        const int directory = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        fsync(directory);
        close(directory);
    }
}

}  // namespace

BENCHMARK_CAPTURE(BM_Increment, single, KorloSettingsClient::SingleThreaded)->UseRealTime();
BENCHMARK_CAPTURE(BM_Increment, multi, KorloSettingsClient::MultiThreaded)->UseRealTime();
BENCHMARK(BM_PipeIncrement)->UseRealTime();
BENCHMARK(BM_RedisIncrement)->UseRealTime();
BENCHMARK(BM_ContendedIncrement)->UseRealTime();
BENCHMARK(BM_RedisContendedIncrement)->UseRealTime();
BENCHMARK(BM_MergeUnpersisted)->UseRealTime();
BENCHMARK(BM_MergeDelayed)->UseRealTime();
BENCHMARK(BM_MergeWithJournal)->UseRealTime();
BENCHMARK(BM_MergeWithoutJournal)->UseRealTime();
BENCHMARK(BM_RedisHset)->UseRealTime();
BENCHMARK(BM_PlainMerge)->UseRealTime();
BENCHMARK(BM_RedisPlainHset)->UseRealTime();
BENCHMARK_CAPTURE(BM_ChangeOnDisk, replace, "replace")->UseRealTime();
BENCHMARK_CAPTURE(BM_ChangeOnDisk, append, "append")->UseRealTime();
BENCHMARK(BM_RedisChangeOnDisk)->UseRealTime();
BENCHMARK(BM_BareAppend)->UseRealTime();
BENCHMARK(BM_BareReplacement)->UseRealTime();

}  // namespace korlo::benchmarks
