// What clients do when memory runs out, at each of their allocations in turn.

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include <gtest/gtest.h>
#include <pthread.h>

#include "client/KorloSettingsClientImplMultiThreaded.h"
#include "client/KorloSettingsLocalConnection.h"
#include "client/KorloSettingsTcpConnection.h"
#include "korlo/core/Logger.h"
#include "korlo/osa/Exception.h"
#include "settings/KorloSettingsClient.h"
#include "support/Callbacks.h"
#include "support/Documents.h"
#include "support/Heap.h"
#include "support/ScriptedServer.h"
#include "support/SettingsServer.h"

namespace korlo::settings::client
{
namespace
{

using namespace std::chrono_literals;
using core::IniFile;
using Mode = KorloSettingsClient::OperationMode;

/// Fails one allocation of a thread while it lives, or several in a row.
class MemoryFault
{
public:
    MemoryFault(const char* thread, int after, int failures = 1)
    {
        heap.failingThread = thread;
        heap.failures = failures;
        heap.failAfter = after;
    }

    MemoryFault(const MemoryFault&) = delete;
    MemoryFault& operator=(const MemoryFault&) = delete;
    ~MemoryFault()
    {
        heap.failAfter = -1;
        heap.failures = 1;
    }

    bool HasStruck() const { return heap.failAfter < 0; }
};

constexpr const char* ReaderThread = "KorloSettings";
constexpr const char* ConstructingThread = "constructing";

/// Constructs a client, and lets it go, on a thread of its own, with each allocation in turn failing, until none does.
void ConstructWithFaults(const std::function<void()>& construct)
{
    std::async(std::launch::async, [&] {
        pthread_setname_np(pthread_self(), ConstructingThread);
        construct();  // makes what the process keeps, loggers above all
        bool hasStruck = true;
        for (int after = 0; hasStruck; ++after)
        {
            SCOPED_TRACE(after);
            const long long before = heap.blocks;
            {
                const MemoryFault fault(ConstructingThread, after);
                try
                {
                    construct();
                }
                catch (const std::bad_alloc&)
                {
                }
                hasStruck = fault.HasStruck();
            }
            EXPECT_EQ(heap.blocks, before);
        }
    }).get();
}

TEST(ClientAllocationTest, NothingLeaksWhenMemoryRunsOutDuringTheConstructionOfAClient)
{
    const ScriptedServer server;
    for (const Mode mode : {Mode::SingleThreaded, Mode::Local, Mode::LocalSingleThreaded})
    {
        SCOPED_TRACE(mode);
        ConstructWithFaults([mode] { const KorloSettingsClient client(mode); });
    }
}

/// Does not connect.
class IdleConnection : public KorloSettingsConnection
{
public:
    void EnsureConnection(int) override { throw osa::Exception("nobody is there"); }
    void CloseConnection() override {}
};

TEST(ClientAllocationTest, NothingLeaksWhenMemoryRunsOutDuringTheConstructionOfAReaderThread)
{
    core::Logger::ClearAppenders();
    const WaitLimits impatient{1, 1, 1, 1};
    ConstructWithFaults([&impatient] {
        const KorloSettingsClientImplMultiThreaded client(std::make_unique<IdleConnection>(), impatient);
    });
    ConstructWithFaults(
        [&impatient] { const KorloSettingsClientImplMultiThreaded client(new IdleConnection, impatient); });
}

/// Waits until it hears of a value.
class AwaitingCallback : public IChangeCallback
{
public:
    void OnChange(const GroupNameCollection&, const IniFile& settings) override
    {
        {
            const std::lock_guard lock(_mutex);
            _value = settings.HasValue("A", "x") ? settings.GetIntOrDefault("A", "x", -1) : -1;
        }
        _heard.notify_all();
    }

    bool Await(int value)
    {
        std::unique_lock lock(_mutex);
        return _heard.wait_for(lock, 20s, [&] { return _value == value; });
    }

private:
    std::mutex _mutex;
    std::condition_variable _heard;
    int _value = -1;
};

/// A get of the group "A"; false if it threw.
bool GetsA(const KorloSettingsClientImplMultiThreaded& client, IniFile& settings)
{
    try
    {
        client.GetSettings({"A"}, settings);
        return true;
    }
    catch (const osa::Exception&)
    {
        return false;
    }
}

/// The client answers again, and hears of changes. Until its reader thread has noticed that the connection is lost,
/// every call fails at once.
void ExpectThatItWorks(KorloSettingsClientImplMultiThreaded& client, AwaitingCallback& callback, int value)
{
    const std::string text = "[A]\nx=" + std::to_string(value) + "\n";
    IniFile settings;
    bool isRead = false;
    for (const auto end = std::chrono::steady_clock::now() + 20s; !isRead && std::chrono::steady_clock::now() < end;)
    {
        isRead = GetsA(client, settings);
        std::this_thread::yield();
    }
    ASSERT_TRUE(isRead);
    client.MergeSettings(Ini(text), 0);
    EXPECT_TRUE(callback.Await(value));
    IniFile after;
    EXPECT_TRUE(GetsA(client, after));
    EXPECT_EQ(TextOf(after), text);
}

/// Fails so many allocations of the reader thread in a row, from each of them on in turn.
void ExpectThatTheReaderThreadSurvives(int failures)
{
    core::Logger::ClearAppenders();
    SettingsServer server;
    bool hasStruck = true;
    for (int after = 0; hasStruck; ++after)
    {
        SCOPED_TRACE(after);
        AwaitingCallback callback;
        KorloSettingsClientImplMultiThreaded client(new KorloSettingsTcpConnection, WaitLimits{20000, 1000, 1, 1000});
        client.Subscribe(&callback, {"A", "B*"});
        IniFile settings;
        ASSERT_TRUE(GetsA(client, settings));
        {
            const MemoryFault fault(ReaderThread, after, failures);
            server.GetStore().MergeSettings(Ini("[A]\nx=1000000\n"), 0);
            IniFile ignored;
            if (GetsA(client, ignored))
            {
                EXPECT_EQ(TextOf(ignored), "[A]\nx=1000000\n") << "an answer is whole, or none";
            }
            server.DropClients();
            GetsA(client, ignored);
            GetsA(client, ignored);
            hasStruck = fault.HasStruck();
        }
        ExpectThatItWorks(client, callback, after);
    }
}

TEST(ClientAllocationTest, TheReaderThreadSurvivesEveryFailedAllocation)
{
    ExpectThatTheReaderThreadSurvives(1);
}

TEST(ClientAllocationTest, TheReaderThreadSurvivesWithoutMemoryToLogWhatFailed)
{
    ExpectThatTheReaderThreadSurvives(2);
}

TEST(ClientAllocationTest, NoFailedAllocationLosesAMissedChange)
{
    core::Logger::ClearAppenders();
    SettingsServer server;
    bool hasStruck = true;
    for (int after = 0; hasStruck; ++after)
    {
        SCOPED_TRACE(after);
        AwaitingCallback callback;
        KorloSettingsClientImplMultiThreaded client(new KorloSettingsTcpConnection, WaitLimits{20000, 1000, 1, 1000});
        client.ReportMissedChanges(true);
        IniFile settings;
        ASSERT_TRUE(GetsA(client, settings));
        client.Subscribe(&callback, {"A", "B*"});
        ASSERT_TRUE(GetsA(client, settings));
        {
            const MemoryFault fault(ReaderThread, after);
            server.DropClients();
            server.GetStore().MergeSettings(Ini("[A]\nx=" + std::to_string(after) + "\n[B1]\ny=1\n"), 0);
            EXPECT_TRUE(callback.Await(after));
            hasStruck = fault.HasStruck();
        }
        ExpectThatItWorks(client, callback, after + 1'000'000);
    }
}

}  // namespace
}  // namespace korlo::settings::client
