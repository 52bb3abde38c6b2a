// Where the threads of a connection meet those that change the store.

#include <chrono>
#include <future>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "korlo/osa/PipeStreamPair.h"
#include "settings/server/ClientHandler.h"
#include "support/Callbacks.h"
#include "support/ExchangeStore.h"
#include "support/StoppingBuffer.h"

namespace korlo::settings::server
{
namespace
{

using namespace std::chrono_literals;

/// A connection served on a thread of its own, over pipes.
class PipedHandler
{
public:
    explicit PipedHandler(ExchangeStore& store)
        : _handler(&store.env, _requests.GetIstream(), _responses.GetOstream()),
          _served(std::async(std::launch::async, [this] { _handler.Run(); }))
    {
    }

    ~PipedHandler() { Finish(); }

    void Send(const std::string& text) { *_requests.GetOstream() << text << std::flush; }

    /// The next lines.
    std::string Read(int lines)
    {
        std::string text;
        for (std::string line; lines > 0 && std::getline(*_responses.GetIstream(), line); --lines)
        {
            text += line + '\n';
        }
        return text;
    }

    /// Closes the client's end; true when the handler has ended in time.
    bool Finish()
    {
        _requests.ClosePipe();
        return _served.wait_for(30s) == std::future_status::ready;
    }

    ClientHandler& GetHandler() { return _handler; }

private:
    osa::PipeStreamPair _requests;
    osa::PipeStreamPair _responses;
    ClientHandler _handler;
    std::future<void> _served;
};

TEST(ClientHandlerThreadTest, AClientThatClosesItsEndEndsTheLoopAndItsSubscriptions)
{
    ExchangeStore store;
    PipedHandler connection(store);
    connection.Send("subscribe\nAudio\n.\ninfo subscribed\n");
    EXPECT_EQ(connection.Read(4), "Subscribed groups\n-----------------\nAudio\n\n");
    EXPECT_TRUE(connection.Finish());
    EXPECT_EQ(store.Serve("info subscribed\n"), "Subscribed groups\n-----------------\n\n");
}

TEST(ClientHandlerThreadTest, OneConnectionHearsOfTheChangesOfAnother)
{
    ExchangeStore store;
    PipedHandler subscriber(store);
    subscriber.Send("subscribe\nAudio\n.\ndump\n");
    EXPECT_EQ(subscriber.Read(1), ".\n");
    PipedHandler changer(store);
    changer.Send("merge\n[Audio]\nvolume=8\n.\n");
    EXPECT_EQ(subscriber.Read(7), "async change\nAudio\n.\n[Audio]\nmuted=no\nvolume=8\n.\n");
}

TEST(ClientHandlerThreadTest, InfoWhileANotificationWaitsForTheSameClientDoesNotDeadlock)
{
    // The notifier holds the dispatcher's mutex and waits for the output mutex; whoever asks for the dispatcher's
    // groups with the output mutex held would wait for the notifier in turn.
    ExchangeStore store;
    std::promise<void> inNotification;
    std::promise<void> infoSent;
    PipedHandler connection(store);
    FunctionCallback before([&](const GroupNameCollection&, const core::IniFile&) {
        inNotification.set_value();
        infoSent.get_future().wait_for(30s);
        // With the dispatcher held: give the info every chance to take the output mutex first.
        for (int round = 0; round < 1000; ++round)
        {
            std::this_thread::yield();
        }
        connection.GetHandler().OnChange({"Audio"}, core::IniFile());
    });
    store.manager.Subscribe(&before, "Audio");
    auto change = std::async(std::launch::async, [&] { store.manager.MergeSettings(Ini("[Audio]\nvolume=8\n"), 0); });
    ASSERT_EQ(inNotification.get_future().wait_for(30s), std::future_status::ready);
    connection.Send("info subscribed\n");
    infoSent.set_value();
    ASSERT_EQ(change.wait_for(30s), std::future_status::ready) << "info and the notification wait for each other";
    connection.Send("dump\n");
    const std::string notification = "async change\nAudio\n.\n[Audio]\nmuted=no\nvolume=8\n.\n";
    EXPECT_EQ(connection.Read(7 + 4 + 3),
              notification + "Subscribed groups\n-----------------\nAudio\n\n" + "[Audio]\nvolume=8\n.\n");
    store.manager.Unsubscribe(&before);
}

TEST(ClientHandlerThreadTest, AClientThatDoesNotTakeADumpDoesNotLockTheStore)
{
    ExchangeStore store;
    std::istringstream in("dump all\n");
    StoppingBuffer buffer;
    std::ostream out(&buffer);
    ClientHandler handler(&store.env, &in, &out);
    auto served = std::async(std::launch::async, [&] { handler.Run(); });
    ASSERT_EQ(buffer.stopped.get_future().wait_for(30s), std::future_status::ready);
    auto change = std::async(std::launch::async, [&] { store.manager.MergeSettings(Ini("[New]\nk=v\n"), 0); });
    EXPECT_EQ(change.wait_for(10s), std::future_status::ready);
    buffer.go.set_value();
    served.get();
}

TEST(ClientHandlerThreadTest, TheSerializerMayBeSwitchedWhileAnotherThreadNotifies)
{
    ExchangeStore store;
    PipedHandler connection(store);
    connection.Send("subscribe\nAudio\n.\ndump\n");
    EXPECT_EQ(connection.Read(1), ".\n");
    constexpr int rounds = 300;
    auto changes = std::async(std::launch::async, [&] {
        for (int round = 0; round < rounds; ++round)
        {
            store.manager.MergeSettings(Ini("[Audio]\nvolume=1\n"), SettingsManager::DoNotPersist);
        }
    });
    for (int round = 0; round < rounds; ++round)
    {
        connection.Send(round % 2 == 0 ? "serialize phparray\n" : "serialize ini\n");
    }
    for (int message = 0; message < rounds; ++message)
    {
        ASSERT_EQ(connection.Read(3), "async change\nAudio\n.\n");
        const std::string body = connection.Read(3);
        ASSERT_TRUE(body == "[Audio]\nmuted=no\nvolume=1\n" ||
                    body == "a:1:{s:5:\"Audio\";a:2:{s:5:\"muted\";s:2:\"no\";s:6:\"volume\";s:1:\"1\";}}\n\n.\n")
            << body;
        if (body.starts_with('['))
        {
            ASSERT_EQ(connection.Read(1), ".\n");
        }
    }
    changes.get();
}

TEST(ClientHandlerThreadTest, ManyConnectionsMayBeServedFromTheirFirstCommandOn)
{
    ExchangeStore store;
    std::vector<std::future<std::string>> answers;
    for (int count = 0; count < 8; ++count)
    {
        answers.push_back(std::async(std::launch::async, [&] { return store.Serve("get\nNet/wlan0\n.\n"); }));
    }
    for (std::future<std::string>& answer : answers)
    {
        EXPECT_EQ(answer.get(), Wlan0);
    }
}

TEST(ClientHandlerThreadTest, MessagesOfManyThreadsNeverMix)
{
    ExchangeStore store;
    PipedHandler connection(store);
    connection.Send("subscribe\nNet/*\n.\ndump\n");
    EXPECT_EQ(connection.Read(1), ".\n");
    constexpr int rounds = 200;
    std::vector<std::thread> changers;
    for (int count = 0; count < 3; ++count)
    {
        changers.emplace_back([&store] {
            for (int round = 0; round < rounds; ++round)
            {
                store.manager.MergeSettings(Ini("[Net/wlan0]\nmode=off\n"), SettingsManager::DoNotPersist);
            }
        });
    }
    for (int round = 0; round < rounds; ++round)
    {
        connection.Send("get delimited\nNet/wlan0\n.\n");
    }
    for (int message = 0; message < 4 * rounds; ++message)
    {
        const std::string first = connection.Read(1);
        ASSERT_EQ(first == "data\n" ? connection.Read(3) : first + connection.Read(5),
                  first == "data\n" ? Wlan0 + ".\n" : "async change\nNet/wlan0\n.\n" + Wlan0 + ".\n");
    }
    for (std::thread& changer : changers)
    {
        changer.join();
    }
}

}  // namespace
}  // namespace korlo::settings::server
