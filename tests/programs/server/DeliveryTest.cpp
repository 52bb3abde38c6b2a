// When subscribers hear of a change, whatever else the server has to do.

#include <chrono>
#include <future>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "SettingsServer.h"
#include "support/ExchangeStore.h"
#include "support/ServerProcess.h"

namespace korlo::daemon
{
namespace
{

using std::chrono::seconds;

/// Storage that stops when it is used, until it is told to go on.
///
/// Thread safety: all methods, from any thread; Use is called once.
class StoppingStorage
{
public:
    void Use()
    {
        _used.set_value();
        _goesOn.get_future().wait();
    }

    bool AwaitUse() { return _used.get_future().wait_for(seconds(30)) == std::future_status::ready; }
    void GoOn() { _goesOn.set_value(); }

private:
    std::promise<void> _used;
    std::promise<void> _goesOn;
};

/// A server within the test's process, over storage that the test stops.
class DeliveryTest : public testing::Test
{
protected:
    void Start(bool savesAtOnce)
    {
        ServerLimits limits;
        limits.savesAtOnce = savesAtOnce;
        SettingsServer::Listeners doors;
        doors.push_back(std::make_unique<osa::TcpListener>("127.0.0.1", 0));
        _port = doors.front()->GetPort();
        _pServer = std::make_unique<SettingsServer>(std::move(doors), _store.env, _access, limits);
        _pServer->Start();
    }

    std::unique_ptr<RawClient> Connect() const { return std::make_unique<RawClient>(_port); }

    std::unique_ptr<RawClient> Subscribe(const std::string& group) const
    {
        auto pClient = Connect();
        pClient->Send("subscribe\n" + group + "\n.\n");
        EXPECT_EQ(pClient->Get("None"), "");
        return pClient;
    }

    /// What the next notification says.
    static std::string Hear(RawClient& client)
    {
        EXPECT_EQ(client.ReadLine(), "async change");
        client.ReadBlock();
        return client.ReadBlock();
    }

    settings::server::ExchangeStore _store;
    StoppingStorage _storage;
    AccessControl _access{nullptr, std::nullopt};
    unsigned short _port = 0;
    std::unique_ptr<SettingsServer> _pServer;
};

TEST_F(DeliveryTest, AChangeIsHeardBeforeTheRestoreBehindItIsDone)
{
    Start(false);
    const auto pSubscriber = Subscribe("A");
    const auto pChanger = Connect();
    _store.persister.beforeLoadDefaults = [this] { _storage.Use(); };
    pChanger->Send("merge\n[A]\nk=1\n.\nrestore\nB\n.\nmerge\n[A]\nk=2\n.\n");
    ASSERT_TRUE(_storage.AwaitUse());
    EXPECT_EQ(Hear(*pSubscriber), "[A]\nk=1\n");
    _storage.GoOn();
    EXPECT_EQ(Hear(*pSubscriber), "[A]\nk=2\n");
}

TEST_F(DeliveryTest, AChangeIsHeardThoughAnotherClientsRestoreIsNotDone)
{
    Start(false);
    const auto pOfBoth = Subscribe("*");
    const auto pOfOne = Subscribe("C");
    const auto pRestorer = Connect();
    const auto pChanger = Connect();
    _store.persister.beforeLoadDefaults = [this] { _storage.Use(); };
    pRestorer->Send("merge\n[A]\nk=1\n.\nrestore\nB\n.\n");
    ASSERT_TRUE(_storage.AwaitUse());
    EXPECT_EQ(Hear(*pOfBoth), "[A]\nk=1\n");
    for (const std::string value : {"2", "3"})
    {
        const std::string change = "[C]\nk=" + value + '\n';
        EXPECT_TRUE(pChanger->TestAndMerge("", change));
        EXPECT_EQ(Hear(*pOfBoth), change);
        EXPECT_EQ(Hear(*pOfOne), change);
    }
    _storage.GoOn();
}

TEST_F(DeliveryTest, AChangeInMemoryIsHeardBeforeTheSaveBehindItIsDone)
{
    Start(true);
    const auto pSubscriber = Subscribe("A");
    const auto pChanger = Connect();
    _store.persister.beforeSave = [this] { _storage.Use(); };
    pChanger->Send("merge nopersist\n[A]\nk=1\n.\nmerge\n[B]\nk=1\n.\n");
    ASSERT_TRUE(_storage.AwaitUse());
    EXPECT_EQ(Hear(*pSubscriber), "[A]\nk=1\n");
    _storage.GoOn();
    EXPECT_EQ(pChanger->Get("B"), "[B]\nk=1\n");
}

}  // namespace
}  // namespace korlo::daemon
