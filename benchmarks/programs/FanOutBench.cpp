// A change on its way to its subscribers, beside a Redis message to as many.

#include <array>
#include <atomic>
#include <benchmark/benchmark.h>
#include <condition_variable>
#include <functional>
#include <list>
#include <mutex>
#include <sys/epoll.h>
#include <sys/resource.h>
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
using settings::GroupNameCollection;
using settings::KorloSettingsClient;

constexpr const char* Group = "Announcements";
constexpr const char* Value = "a value of twenty by";
const std::vector<std::string> NearlyNeverSave = {"--save-delay", "600000"};

IniFile Change()
{
    IniFile ini;
    ini.SetValue(Group, "message", Value);
    return ini;
}

std::string Notification()
{
    return "async change\nAnnouncements\n.\n[Announcements]\nmessage=" + std::string(Value) + "\n.\n";
}

std::string RedisMessage()
{
    return "*3\r\n$7\r\nmessage\r\n$13\r\nAnnouncements\r\n$20\r\n" + std::string(Value) + "\r\n";
}

/// Counts what has come, and lets somebody wait for it.
class Arrivals
{
public:
    void Add()
    {
        const std::lock_guard lock(_mutex);
        if (++_count >= _awaited)
        {
            _arrived.notify_one();
        }
    }

    void WaitForOne() { WaitFor(1); }

    void WaitFor(long count)
    {
        std::unique_lock lock(_mutex);
        _awaited = count;
        _arrived.wait(lock, [this] { return _count >= _awaited; });
        _count -= count;
    }

private:
    std::mutex _mutex;
    std::condition_variable _arrived;
    long _count = 0;
    long _awaited = 1;
};

class ArrivalCallback : public settings::IChangeCallback
{
public:
    explicit ArrivalCallback(Arrivals& arrivals) : _arrivals(arrivals) {}
    void OnChange(const GroupNameCollection&, const IniFile&) override { _arrivals.Add(); }

private:
    Arrivals& _arrivals;
};

/// From the change in one client to the callback in another.
void ChangeToCallback(benchmark::State& state, KorloSettingsClient& writer, KorloSettingsClient& reader)
{
    Arrivals arrivals;
    ArrivalCallback callback(arrivals);
    reader.Subscribe(&callback, Group);
    reader.GetValue("[Announcements]message");  // the subscription has been carried out
    const IniFile change = Change();
    for (auto _ : state)
    {
        writer.MergeSettings(change);
        arrivals.WaitForOne();
    }
    reader.UnSubscribe(&callback);
}

void BM_ChangeToCallback(benchmark::State& state)
{
    PinToCore(0);
    const KorloServer server(NearlyNeverSave);
    server.Register();
    KorloSettingsClient writer(KorloSettingsClient::SingleThreaded);
    KorloSettingsClient reader(KorloSettingsClient::MultiThreaded);
    ChangeToCallback(state, writer, reader);
}

void BM_PipeChangeToCallback(benchmark::State& state)
{
    PinToCore(0);
    KorloSettingsClient client(KorloSettingsClient::LocalMultiThreaded);
    ChangeToCallback(state, client, client);
}

void BM_RedisPublishToSubscriber(benchmark::State& state)
{
    PinToCore(0);
    const RedisServer server;
    RedisClient publisher(server.GetPort());
    RedisClient subscriber(server.GetPort());
    subscriber.Run("SUBSCRIBE %s", Group);
    Arrivals arrivals;
    std::jthread reader([&](const std::stop_token& stop) {
        while (!stop.stop_requested())
        {
            subscriber.TakeReply();
            arrivals.Add();
        }
    });
    for (auto _ : state)
    {
        publisher.Run("PUBLISH %s %s", Group, Value);
        arrivals.WaitForOne();
    }
    reader.request_stop();
    publisher.Run("PUBLISH %s %s", Group, Value);
}

/// Subscribers with a thread each, in this process.
///
/// Every change has reached all of them before the next is made.
void BM_ChangeToCallbacks(benchmark::State& state)
{
    PinToCore(0);
    const KorloServer server(NearlyNeverSave);
    server.Register();
    KorloSettingsClient writer(KorloSettingsClient::SingleThreaded);
    Arrivals arrivals;
    ArrivalCallback callback(arrivals);
    std::list<KorloSettingsClient> readers;
    for (long number = 0; number < state.range(0); ++number)
    {
        KorloSettingsClient& reader = readers.emplace_back(KorloSettingsClient::MultiThreaded);
        reader.Subscribe(&callback, Group);
        reader.GetValue("[Announcements]message");  // the subscription has been carried out
    }
    const IniFile change = Change();
    for (auto _ : state)
    {
        writer.MergeSettings(change);
        arrivals.WaitFor(state.range(0));
    }
    for (KorloSettingsClient& reader : readers)
    {
        reader.UnSubscribe(&callback);
    }
}

void BM_RedisPublishToThreads(benchmark::State& state)
{
    PinToCore(0);
    const RedisServer server;
    RedisClient publisher(server.GetPort());
    Arrivals arrivals;
    std::atomic<bool> goesOn = true;
    std::list<RedisClient> subscribers;
    std::vector<std::jthread> readers;
    for (long number = 0; number < state.range(0); ++number)
    {
        RedisClient& subscriber = subscribers.emplace_back(server.GetPort());
        subscriber.Run("SUBSCRIBE %s", Group);
        readers.emplace_back([&] {
            while (goesOn)
            {
                subscriber.TakeReply();
                arrivals.Add();
            }
        });
    }
    for (auto _ : state)
    {
        publisher.Run("PUBLISH %s %s", Group, Value);
        arrivals.WaitFor(state.range(0));
    }
    goesOn = false;
    publisher.Run("PUBLISH %s %s", Group, Value);
}

/// Bare subscribed sockets: what their owners would do with the bytes is not measured.
class Subscribers
{
public:
    Subscribers(std::uint16_t port, long count, const std::string& request, std::size_t answerBytes)
        : _poll(epoll_create1(EPOLL_CLOEXEC))
    {
        for (long number = 0; number < count; ++number)
        {
            const int socket = ConnectTo(port);
            SendAll(socket, request);
            ReceiveExactly(socket, answerBytes);
            epoll_event event{};
            event.events = EPOLLIN;
            event.data.u32 = static_cast<std::uint32_t>(_sockets.size());
            epoll_ctl(_poll, EPOLL_CTL_ADD, socket, &event);
            _sockets.push_back(socket);
        }
    }

    Subscribers(const Subscribers&) = delete;
    Subscribers& operator=(const Subscribers&) = delete;

    ~Subscribers()
    {
        for (const int socket : _sockets)
        {
            close(socket);
        }
        close(_poll);
    }

    /// Reads until each has got that many bytes.
    void Receive(std::size_t bytesEach)
    {
        std::size_t missing = bytesEach * _sockets.size();
        std::vector<epoll_event> events(_sockets.size());
        while (missing > 0)
        {
            const int ready = epoll_wait(_poll, events.data(), static_cast<int>(events.size()), -1);
            for (int event = 0; event < ready; ++event)
            {
                const int socket = _sockets[events[static_cast<std::size_t>(event)].data.u32];
                const ssize_t got = recv(socket, _buffer.data(), _buffer.size(), 0);
                missing -= got > 0 ? static_cast<std::size_t>(got) : 0;
            }
        }
    }

private:
    int _poll;
    std::vector<int> _sockets;
    std::string _buffer = std::string(65536, '\0');
};

/// A response after the subscription tells that it has been carried out.
const std::string SubscribeRequest = "subscribe\nAnnouncements\n.\nget delimited\n.\n";
constexpr std::size_t SubscribeAnswerBytes = 7;  // "data\n.\n"
const std::string RedisSubscribeRequest = "SUBSCRIBE Announcements\r\n";
const std::string RedisSubscribeAnswer = "*3\r\n$9\r\nsubscribe\r\n$13\r\nAnnouncements\r\n:1\r\n";

/// Redis answers to the publisher, too.
void TakeAnswers(int writer)
{
    std::array<char, 65536> buffer;
    while (recv(writer, buffer.data(), buffer.size(), MSG_DONTWAIT) > 0)
    {
    }
}

/// Sends the requests of one round at once, and waits until every subscriber has what comes of them.
void FanOut(benchmark::State& state, Subscribers& subscribers, int writer, const std::string& requests,
            std::size_t bytesEach, std::size_t messages)
{
    for (auto _ : state)
    {
        SendAll(writer, requests);
        subscribers.Receive(bytesEach * messages);
        TakeAnswers(writer);
    }
    state.counters["messages"] =
        benchmark::Counter(static_cast<double>(state.iterations() * state.range(0)) * static_cast<double>(messages),
                           benchmark::Counter::kIsRate);
}

std::string Repeated(const std::string& text, std::size_t count)
{
    std::string repeated;
    for (std::size_t number = 0; number < count; ++number)
    {
        repeated += text;
    }
    return repeated;
}

void FanOutByKorlo(benchmark::State& state, std::size_t messages)
{
    PinToCore(0);
    const KorloServer server(NearlyNeverSave);
    Subscribers subscribers(server.GetPort(), state.range(0), SubscribeRequest, SubscribeAnswerBytes);
    const int writer = ConnectTo(server.GetPort());
    const std::string request = "merge\n[Announcements]\nmessage=" + std::string(Value) + "\n.\n";
    FanOut(state, subscribers, writer, Repeated(request, messages), Notification().size(), messages);
    close(writer);
}

void FanOutByRedis(benchmark::State& state, std::size_t messages)
{
    PinToCore(0);
    const RedisServer server;
    Subscribers subscribers(server.GetPort(), state.range(0), RedisSubscribeRequest, RedisSubscribeAnswer.size());
    const int writer = ConnectTo(server.GetPort());
    const std::string request = "PUBLISH Announcements \"" + std::string(Value) + "\"\r\n";
    FanOut(state, subscribers, writer, Repeated(request, messages), RedisMessage().size(), messages);
    close(writer);
}

void BM_FanOut(benchmark::State& state)
{
    FanOutByKorlo(state, 1);
}

void BM_RedisFanOut(benchmark::State& state)
{
    FanOutByRedis(state, 1);
}

constexpr std::size_t Burst = 500;

void BM_FanOutBurst(benchmark::State& state)
{
    FanOutByKorlo(state, Burst);
}

void BM_RedisFanOutBurst(benchmark::State& state)
{
    FanOutByRedis(state, Burst);
}

/// Resident memory of a server, alone and for each of many idle subscribed clients.
struct Memory
{
    double idleKib = 0;
    double clientKib = 0;
};

Memory MeasureMemory(const std::vector<std::string>& options, long clients)
{
    const KorloServer server(options, "");
    Memory memory;
    memory.idleKib = server.GetProcess().ResidentKiB();
    const Subscribers subscribers(server.GetPort(), clients, SubscribeRequest, SubscribeAnswerBytes);
    memory.clientKib = (server.GetProcess().ResidentKiB() - memory.idleKib) / static_cast<double>(clients);
    return memory;
}

/// The time says nothing.
void BM_ServerMemory(benchmark::State& state)
{
    rlimit files{};
    getrlimit(RLIMIT_NOFILE, &files);
    files.rlim_cur = files.rlim_max;
    setrlimit(RLIMIT_NOFILE, &files);
    for (auto _ : state)
    {
        const Memory open = MeasureMemory({}, state.range(0));
        const RulesFile rules(100, "Announcements");
        const Memory guarded = MeasureMemory({"--access", rules.GetPath()}, state.range(0));
        state.counters["idle_kib"] = open.idleKib;
        state.counters["client_kib"] = open.clientKib;
        state.counters["rules_kib"] = guarded.clientKib - open.clientKib;
    }
}

}  // namespace

BENCHMARK(BM_ChangeToCallback)->UseRealTime();
BENCHMARK(BM_PipeChangeToCallback)->UseRealTime();
BENCHMARK(BM_RedisPublishToSubscriber)->UseRealTime();
BENCHMARK(BM_ChangeToCallbacks)->Arg(10)->Arg(100)->Arg(500)->UseRealTime();
BENCHMARK(BM_RedisPublishToThreads)->Arg(10)->Arg(100)->Arg(500)->UseRealTime();
BENCHMARK(BM_FanOut)->Arg(1)->Arg(10)->Arg(100)->Arg(500)->UseRealTime();
BENCHMARK(BM_RedisFanOut)->Arg(1)->Arg(10)->Arg(100)->Arg(500)->UseRealTime();
BENCHMARK(BM_FanOutBurst)->Arg(100)->UseRealTime();
BENCHMARK(BM_RedisFanOutBurst)->Arg(100)->UseRealTime();
BENCHMARK(BM_ServerMemory)->Arg(1000)->Iterations(1)->UseRealTime();

}  // namespace korlo::benchmarks
