// Who hears, and when, whether a client has a connection.

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gmock/gmock.h>

#include "korlo/osa/ServiceDirectory.h"
#include "settings/IConnectionCallback.h"
#include "settings/KorloSettingsClient.h"
#include "support/Callbacks.h"
#include "support/Documents.h"
#include "support/Files.h"
#include "support/LogWatch.h"
#include "support/ScriptedServer.h"
#include "support/SettingsServer.h"

namespace korlo::settings
{
namespace
{

using namespace std::chrono_literals;
using Mode = KorloSettingsClient::OperationMode;
using States = std::vector<bool>;

/// Loses the connection of a client that has one, once the server knows of it, too.
void Drop(SettingsServer& server, const KorloSettingsClient& client)
{
    MessageOf([&] { client.GetValue("[A]x"); });  // which an earlier loss may fail
    client.GetValue("[A]x");
    server.DropClients();
}

/// Keeps what it hears, and does what the test says.
///
/// Thread safety: all methods, from any thread.
class RecordingConnectionCallback : public IConnectionCallback
{
public:
    using Action = std::function<void(bool)>;

    explicit RecordingConnectionCallback(Action action = {}) : _action(std::move(action)) {}

    void OnConnectionState(bool isConnected) override
    {
        {
            const std::lock_guard lock(_mutex);
            _states.push_back(isConnected);
            _lastThread = std::this_thread::get_id();
        }
        _heard.notify_all();
        if (_action)
        {
            _action(isConnected);
        }
    }

    /// Waits until it was called so many times: what it heard.
    States Await(std::size_t calls)
    {
        std::unique_lock lock(_mutex);
        _heard.wait_for(lock, 30s, [&] { return _states.size() >= calls; });
        return _states;
    }

    /// Waits until it hears of a connection; how often it was called till then.
    std::size_t AwaitConnection()
    {
        std::unique_lock lock(_mutex);
        EXPECT_TRUE(_heard.wait_for(lock, 30s, [&] { return !_states.empty() && _states.back(); }));
        return _states.size();
    }

    std::thread::id GetLastThread() const
    {
        const std::lock_guard lock(_mutex);
        return _lastThread;
    }

private:
    const Action _action;
    mutable std::mutex _mutex;
    std::condition_variable _heard;
    States _states;
    std::thread::id _lastThread;
};

TEST(ConnectionCallbackTest, HearsTheStateWhenItIsSetOnTheCallingThread)
{
    KorloSettingsClient client(Mode::Local);
    RecordingConnectionCallback callback;
    client.SetConnectionCallback(&callback);
    EXPECT_EQ(callback.Await(1), States{true});
    EXPECT_EQ(callback.GetLastThread(), std::this_thread::get_id());
}

TEST(ConnectionCallbackTest, HearsEveryChangeOfTheStateOnTheReaderThread)
{
    SettingsServer server;
    RecordingConnectionCallback callback;
    KorloSettingsClient client(Mode::MultiThreaded);
    client.SetConnectionCallback(&callback);
    const std::size_t before = callback.AwaitConnection();
    Drop(server, client);
    const States states = callback.Await(before + 2);
    ASSERT_EQ(states.size(), before + 2);
    EXPECT_FALSE(states[before]);
    EXPECT_TRUE(states[before + 1]);
    EXPECT_NE(callback.GetLastThread(), std::this_thread::get_id());
}

TEST(ConnectionCallbackTest, ASearchForAServerIsNoConnectionHoweverLongItTakes)
{
    auto pServer = std::make_unique<ScriptedServer>();
    const unsigned short port = pServer->GetPort();
    pServer.reset();
    osa::ServiceDirectory::Register(client::KorloSettingsTcpConnection::ServerHost, "127.0.0.1", port);
    LogWatch log;
    RecordingConnectionCallback callback;
    KorloSettingsClient client(Mode::MultiThreaded);
    client.SetConnectionCallback(&callback);
    ASSERT_TRUE(log.WaitFor("4 KorloSettings: Attempting to reconnect in 1 second"));
    EXPECT_EQ(callback.Await(1), States{false});
    const SettingsServer server;
    EXPECT_EQ(callback.Await(2), (States{false, true}));
}

TEST(ConnectionCallbackTest, WhoHearsOfAConnectionMaySendAndIsSubscribedAgain)
{
    SettingsServer server;
    std::promise<void> changed;
    FunctionCallback subscriber([&](const GroupNameCollection&, const core::IniFile&) { changed.set_value(); });
    KorloSettingsClient client(Mode::MultiThreaded);
    client.Subscribe(&subscriber, "A");
    std::atomic<bool> isArmed = false;
    std::atomic<bool> isLost = false;
    RecordingConnectionCallback callback([&](bool isConnected) {
        if (!isConnected && isArmed)
        {
            isLost = true;
        }
        if (isConnected && isLost.exchange(false))
        {
            client.SetValue("[A]x", "1");
        }
    });
    client.SetConnectionCallback(&callback);
    callback.AwaitConnection();
    isArmed = true;
    Drop(server, client);
    EXPECT_EQ(changed.get_future().wait_for(30s), std::future_status::ready);
}

TEST(ConnectionCallbackTest, LocalModesAreAlwaysConnected)
{
    for (const Mode mode : {Mode::Local, Mode::LocalSingleThreaded, Mode::LocalMultiThreaded})
    {
        SCOPED_TRACE(mode);
        RecordingConnectionCallback callback;
        KorloSettingsClient client(mode);
        client.SetConnectionCallback(&callback);
        client.SetValue("[A]x", "1");
        EXPECT_EQ(client.GetValue("[A]x"), "1");
        EXPECT_EQ(callback.Await(1), States{true});
    }
}

TEST(ConnectionCallbackTest, ASingleThreadedClientTellsWhatItsLastCallFound)
{
    const SettingsServer server;
    RecordingConnectionCallback callback;
    KorloSettingsClient client(Mode::SingleThreaded);
    client.SetConnectionCallback(&callback);
    client.GetValue("[A]x");
    client.SetConnectionCallback(&callback);
    EXPECT_EQ(callback.Await(2), (States{false, true}));
}

TEST(ConnectionCallbackTest, AConfirmingClientIsConnectedUntilItFails)
{
    ScriptedServer server;
    RecordingConnectionCallback callback;
    KorloSettingsClient client = KorloSettingsClient::Confirming("");
    client.SetConnectionCallback(&callback);
    server.Accept()->Close();
    EXPECT_NE(MessageOf([&] { client.SetValue("[A]x", "1"); }), "");
    EXPECT_EQ(callback.Await(1), States{true}) << "it has no thread to tell of it";
    client.SetConnectionCallback(&callback);
    EXPECT_EQ(callback.Await(2), (States{true, false}));
}

TEST(ConnectionCallbackTest, AfterAnotherOneOrNullIsSetItHearsNoMore)
{
    SettingsServer server;
    LogWatch log;
    core::Logger::GetLogger("KorloSettings")->SetThreshold(core::LogLevelInformation);
    RecordingConnectionCallback first;
    RecordingConnectionCallback second;
    KorloSettingsClient client(Mode::MultiThreaded);
    client.SetConnectionCallback(&first);
    const std::size_t before = first.AwaitConnection();
    client.SetConnectionCallback(&second);
    Drop(server, client);
    const std::size_t heard = second.Await(3).size();
    EXPECT_EQ(heard, 3u);
    EXPECT_EQ(first.Await(1).size(), before);
    client.SetConnectionCallback(nullptr);
    Drop(server, client);
    EXPECT_TRUE(log.WaitFor("6 KorloSettings: Connected to korlo-settings-server, releasing semaphore", 3));
    EXPECT_EQ(second.Await(heard).size(), heard);
}

TEST(ConnectionCallbackTest, NoCallIsUnderWayOnceItIsUnset)
{
    SettingsServer server;
    KorloSettingsClient client(Mode::MultiThreaded);
    std::promise<void> inside;
    std::promise<void> leave;
    std::atomic<bool> hasLeft = false;
    std::atomic<bool> isSet = false;
    RecordingConnectionCallback callback([&](bool isConnected) {
        if (!isConnected && isSet.exchange(false))
        {
            inside.set_value();
            leave.get_future().wait();
            hasLeft = true;
        }
    });
    client.SetConnectionCallback(&callback);
    callback.AwaitConnection();
    isSet = true;
    Drop(server, client);
    inside.get_future().wait();
    auto unset = std::async(std::launch::async, [&] { client.SetConnectionCallback(nullptr); });
    EXPECT_EQ(unset.wait_for(20ms), std::future_status::timeout);
    leave.set_value();
    unset.get();
    EXPECT_TRUE(hasLeft);
}

TEST(ConnectionCallbackTest, ItMayUnsetItselfFromItsOwnCall)
{
    SettingsServer server;
    KorloSettingsClient client(Mode::MultiThreaded);
    std::promise<void> unset;
    std::atomic<bool> isArmed = false;
    RecordingConnectionCallback callback([&](bool) {
        if (isArmed)
        {
            client.SetConnectionCallback(nullptr);
            unset.set_value();
        }
    });
    client.SetConnectionCallback(&callback);
    callback.AwaitConnection();
    isArmed = true;
    Drop(server, client);
    EXPECT_EQ(unset.get_future().wait_for(30s), std::future_status::ready);
}

TEST(ConnectionCallbackTest, OneThatThrowsCostsNothingButALine)
{
    SettingsServer server;
    LogWatch log;
    std::atomic<bool> isArmed = false;
    RecordingConnectionCallback callback([&](bool) {
        if (isArmed)
        {
            throw std::runtime_error("I do not care");
        }
    });
    KorloSettingsClient client(Mode::MultiThreaded);
    client.SetConnectionCallback(&callback);
    const std::size_t before = callback.AwaitConnection();
    isArmed = true;
    Drop(server, client);
    EXPECT_TRUE(callback.Await(before + 2).back());
    EXPECT_TRUE(log.WaitFor("3 KorloSettings: Caught I do not care", 2));
}

TEST(ConnectionCallbackTest, OneThatThrowsWhenItIsSetIsNotSet)
{
    KorloSettingsClient client(Mode::Local);
    RecordingConnectionCallback callback([](bool) { throw std::runtime_error("not now"); });
    EXPECT_THROW(client.SetConnectionCallback(&callback), std::runtime_error);
    client.SetConnectionCallback(nullptr);
    EXPECT_EQ(callback.Await(1), States{true});
}

TEST(ConnectionCallbackTest, TheEndOfTheClientIsNotReported)
{
    SettingsServer server;
    RecordingConnectionCallback callback;
    {
        KorloSettingsClient client(Mode::MultiThreaded);
        client.SetConnectionCallback(&callback);
        callback.AwaitConnection();
    }
    EXPECT_TRUE(callback.Await(1).back());
}

}  // namespace
}  // namespace korlo::settings
