// Clients and the server over a network that goes wrong: every fault costs its own connection and nothing else, and no
// client takes a part of an answer for the whole of it.

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "client/KorloSettingsTcpConnection.h"
#include "korlo/osa/ServiceDirectory.h"
#include "settings/KorloSettingsClient.h"
#include "support/Documents.h"
#include "support/FaultProxy.h"
#include "support/Files.h"
#include "support/LogCapture.h"
#include "support/ServerProcess.h"
#include "support/TemporaryFolder.h"

namespace korlo::daemon
{
namespace
{

using core::IniFile;
using settings::GroupNameCollection;
using settings::KorloSettingsClient;
using testing::HasSubstr;

/// Hands the content of a group to the test.
///
/// Thread safety: all methods, from any thread.
class LastChange : public settings::IChangeCallback
{
public:
    void OnChange(const GroupNameCollection&, const IniFile& settings) override
    {
        const std::lock_guard lock(_mutex);
        _seen.push_back(settings);
        _changed.notify_all();
    }

    /// False when the document did not come for long.
    bool Await(const IniFile& settings)
    {
        std::unique_lock lock(_mutex);
        return _changed.wait_for(lock, std::chrono::seconds(30),
                                 [&] { return std::find(_seen.begin(), _seen.end(), settings) != _seen.end(); });
    }

    std::vector<IniFile> GetSeen() const
    {
        const std::lock_guard lock(_mutex);
        return _seen;
    }

private:
    mutable std::mutex _mutex;
    std::condition_variable _changed;
    std::vector<IniFile> _seen;
};

/// The real server; the library's clients reach it through the proxy, the bystander directly.
class ServerFaultTest : public testing::Test
{
protected:
    ServerFaultTest()
    {
        osa::ServiceDirectory::Register(settings::client::KorloSettingsTcpConnection::ServerHost, "127.0.0.1",
                                        _proxy.GetPort());
        EXPECT_TRUE(_bystander.TestAndMerge("", Big));
        _threads = _server.CountThreads();
        _descriptors = _server.CountDescriptors();
        _ownThreads = _self.CountThreads();
        _ownDescriptors = _self.CountDescriptors();
    }

    ~ServerFaultTest() override
    {
        osa::ServiceDirectory::Unregister(settings::client::KorloSettingsTcpConnection::ServerHost);
    }

    /// Expects both processes to be as they were before the clients came, and the bystander to be served.
    void ExpectNothingLeft()
    {
        EXPECT_TRUE(_proxy.AwaitLinks(0));
        EXPECT_TRUE(Eventually([this] { return _server.CountThreads() == _threads; }));
        EXPECT_TRUE(Eventually([this] { return _server.CountDescriptors() == _descriptors; }));
        EXPECT_TRUE(Eventually([this] { return _self.CountThreads() == _ownThreads; }));  // a joined one may linger
        EXPECT_EQ(_self.CountDescriptors(), _ownDescriptors);
        EXPECT_TRUE(_bystander.TestAndMerge("", "[Bystander]\nk=1\n"));
        EXPECT_EQ(_bystander.Get("Bystander"), "[Bystander]\nk=1\n");
    }

    static IniFile Get(const KorloSettingsClient& client, const std::string& group)
    {
        IniFile settings;
        client.GetSettings(group, settings);
        return settings;
    }

    inline static const std::string Big = "[Big]\na=first\nb=second\nc=third\n";

    LogCapture _log;  // what breaks is logged, and is meant to break here
    TemporaryFolder _folder;
    // Only errors are logged: nobody reads the warnings, and a full pipe would stop the server.
    ServerProcess _server{{"--user", _folder.PathOf("user.ini"), "--log-level", "1"}};
    FaultProxy _proxy{_server.GetPort()};
    RawClient _bystander{_server.GetPort()};
    const ProcessFigures _self{::getpid()};
    std::size_t _threads = 0;
    std::size_t _descriptors = 0;
    std::size_t _ownThreads = 0;
    std::size_t _ownDescriptors = 0;
};

/// All operations of one client, with the answers that they must have.
void UseEveryOperation(KorloSettingsClient& client)
{
    IniFile settings;
    client.GetSettings("Big", settings);
    EXPECT_EQ(settings, Ini("[Big]\na=first\nb=second\nc=third\n"));
    client.MergeSettings(Ini("[New]\nk=1\nl=line one\\nline two\n"));
    EXPECT_EQ(client.GetValue("[New]k"), "1");
    EXPECT_TRUE(client.TestAndMerge(Ini("[New]\nk=1\n"), Ini("[New]\nk=2\n")));
    EXPECT_FALSE(client.TestAndMerge(Ini("[New]\nk=1\n"), Ini("[New]\nk=3\n")));
    EXPECT_EQ(client.GetValue("[New]k"), "2");
    client.OverwriteSettings("New", Ini("[New]\nonly=this\n"));
    client.RestoreToDefaults("Nobody");
    IniFile overwritten;
    client.GetSettings("New", overwritten);
    EXPECT_EQ(overwritten, Ini("[New]\nonly=this\n"));
}

TEST_F(ServerFaultTest, ByteByByteEveryOperationDoesWhatItDoes)
{
    _proxy.SetPieces(1);
    for (const auto mode : {KorloSettingsClient::SingleThreaded, KorloSettingsClient::MultiThreaded})
    {
        SCOPED_TRACE(mode);
        KorloSettingsClient client(mode);
        UseEveryOperation(client);
    }
    ExpectNothingLeft();
}

TEST_F(ServerFaultTest, ByteByByteANotificationArrivesWhole)
{
    _proxy.SetPieces(1);
    LastChange change;
    {
        KorloSettingsClient client(KorloSettingsClient::MultiThreaded);
        client.Subscribe(&change, "Watched");
        EXPECT_EQ(Get(client, "Big"), Ini(Big));  // the subscription came before it
        EXPECT_TRUE(_bystander.TestAndMerge("", "[Watched]\nk=1\nl=2\n"));
        EXPECT_TRUE(change.Await(Ini("[Watched]\nk=1\nl=2\n")));
    }
    ExpectNothingLeft();
}

TEST_F(ServerFaultTest, DelaysChangeNothingButTheTime)
{
    _proxy.SetPieces(40, std::chrono::milliseconds(2));
    for (const auto mode : {KorloSettingsClient::SingleThreaded, KorloSettingsClient::MultiThreaded})
    {
        SCOPED_TRACE(mode);
        KorloSettingsClient client(mode);
        UseEveryOperation(client);
    }
    ExpectNothingLeft();
}

class EveryCutTest : public ServerFaultTest, public testing::WithParamInterface<FaultProxy::Fault>
{
};

TEST_P(EveryCutTest, ASingleThreadedClientAsksAgainUntilItHasTheWholeAnswer)
{
    const std::size_t length = std::string("data\n" + Big + ".\n").size();
    {
        const KorloSettingsClient client(KorloSettingsClient::SingleThreaded);
        for (std::size_t cut = 1; cut < length; ++cut)
        {
            SCOPED_TRACE(cut);
            _proxy.Arm(GetParam(), FaultProxy::ToClient, cut);
            ASSERT_EQ(Get(client, "Big"), Ini(Big));
            ASSERT_TRUE(_proxy.AwaitFault());
        }
    }
    ExpectNothingLeft();
}

TEST_P(EveryCutTest, ASingleThreadedClientTakesNoPartOfAResultForARefusal)
{
    const std::size_t length = std::string("result\nok\n").size();
    {
        KorloSettingsClient client(KorloSettingsClient::SingleThreaded);
        for (std::size_t cut = 1; cut < length; ++cut)
        {
            SCOPED_TRACE(cut);
            IniFile change;
            change.SetValue("Cut", "at", std::to_string(cut));
            _proxy.Arm(GetParam(), FaultProxy::ToClient, cut);
            // The request is sent again, and finds what it expects the second time, too.
            ASSERT_TRUE(client.TestAndMerge(Ini(Big), change));
            ASSERT_TRUE(_proxy.AwaitFault());
        }
    }
    ExpectNothingLeft();
}

// Each cut costs the client its pause of a second, so a few must do: in the keyword, in the body, before its end.
TEST_P(EveryCutTest, AMultiThreadedClientTellsOfACutAnswerAndComesBack)
{
    const std::size_t length = std::string("data\n" + Big + ".\n").size();
    {
        const KorloSettingsClient client(KorloSettingsClient::MultiThreaded);
        EXPECT_EQ(Get(client, "Big"), Ini(Big));
        for (const std::size_t cut : {std::size_t{2}, length / 2, length - 2, length - 1})
        {
            SCOPED_TRACE(cut);
            _proxy.Arm(GetParam(), FaultProxy::ToClient, cut);
            IniFile settings;
            EXPECT_EQ(MessageOf([&] { client.GetSettings("Big", settings); }),
                      "GetSettings failed to communicate with korlo-settings-server");
            EXPECT_EQ(settings, IniFile());
            EXPECT_TRUE(_proxy.AwaitFault());
            EXPECT_EQ(Get(client, "Big"), Ini(Big));
        }
    }
    ExpectNothingLeft();
}

TEST_P(EveryCutTest, AMultiThreadedClientTakesNoPartOfAResultForARefusal)
{
    {
        KorloSettingsClient client(KorloSettingsClient::MultiThreaded);
        EXPECT_EQ(Get(client, "Big"), Ini(Big));
        for (const std::string arrived : {"result\n", "result\no"})
        {
            SCOPED_TRACE(arrived);
            _proxy.Arm(GetParam(), FaultProxy::ToClient, arrived.size());
            EXPECT_EQ(MessageOf([&] { client.TestAndMerge(IniFile(), Ini("[Cut]\nk=1\n")); }),
                      "TestAndMerge failed to communicate with korlo-settings-server");
            EXPECT_EQ(Get(client, "Cut"), Ini("[Cut]\nk=1\n"));
        }
    }
    ExpectNothingLeft();
}

TEST_P(EveryCutTest, ACutNotificationIsNotDeliveredAndLaterOnesAre)
{
    LastChange change;
    std::vector<IniFile> announced;
    {
        KorloSettingsClient client(KorloSettingsClient::MultiThreaded);
        client.Subscribe(&change, "Watched");
        EXPECT_EQ(Get(client, "Big"), Ini(Big));
        std::size_t accepted = 1;
        for (const std::string arrived : {"async change\nWatch", "async change\nWatched\n.\n[Watched]\nk"})
        {
            SCOPED_TRACE(arrived);
            _proxy.Arm(GetParam(), FaultProxy::ToClient, arrived.size());
            EXPECT_TRUE(_bystander.TestAndMerge("", "[Watched]\nk=cut " + std::to_string(accepted) + '\n'));
            EXPECT_TRUE(_proxy.AwaitFault());
            EXPECT_TRUE(_proxy.AwaitAccepted(++accepted));
            MessageOf([&] { Get(client, "Big"); });  // one call may be told of the failure
            EXPECT_EQ(Get(client, "Big"), Ini(Big));
            announced.push_back(Ini("[Watched]\nk=whole " + std::to_string(accepted) + '\n'));
            EXPECT_TRUE(_bystander.TestAndMerge("", "[Watched]\nk=whole " + std::to_string(accepted) + '\n'));
            EXPECT_TRUE(change.Await(announced.back()));
        }
    }
    EXPECT_EQ(change.GetSeen(), announced);
    ExpectNothingLeft();
}

TEST_P(EveryCutTest, ARequestThatIsCutAnywhereIsNotCarriedOut)
{
    const std::string request = "test-and-merge\n[Big]\na=first\n.\n[Half]\nk=1\nl=2\n.\n";
    for (std::size_t cut = 1; cut < request.size(); ++cut)
    {
        SCOPED_TRACE(cut);
        _proxy.Arm(GetParam(), FaultProxy::ToServer, cut);
        RawClient client(_proxy.GetPort());
        client.Send(request);
        EXPECT_TRUE(_proxy.AwaitFault());
        EXPECT_TRUE(client.MeetsTheEnd());
    }
    ExpectNothingLeft();
    EXPECT_EQ(_bystander.Get("Half"), "");
}

TEST_P(EveryCutTest, ASubscriberThatIsGoneCostsTheChangerNothing)
{
    LastChange change;
    {
        RawClient subscriber(_proxy.GetPort());
        subscriber.Send("subscribe\n*\n.\nget delimited\nNone\n.\n");
        EXPECT_EQ(subscriber.ReadLine(), "data");
        EXPECT_EQ(subscriber.ReadBlock(), "");
        _proxy.Arm(GetParam(), FaultProxy::ToClient, 1);
        for (int i = 0; i < 100; ++i)
        {
            ASSERT_TRUE(_bystander.TestAndMerge("", "[Watched]\nk=" + std::to_string(i) + '\n'));
        }
        EXPECT_TRUE(_proxy.AwaitFault());
    }
    ExpectNothingLeft();
}

INSTANTIATE_TEST_SUITE_P(Faults, EveryCutTest, testing::Values(FaultProxy::Reset, FaultProxy::HalfClose));

TEST_F(ServerFaultTest, AStalledReaderDelaysNobodyAndHearsOfEverythingAfterwards)
{
    constexpr int changes = 200;
    LastChange change;
    {
        KorloSettingsClient client(KorloSettingsClient::MultiThreaded);
        client.Subscribe(&change, "Watched");
        EXPECT_EQ(Get(client, "Big"), Ini(Big));
        _proxy.Arm(FaultProxy::Stall, FaultProxy::ToClient, 10);
        for (int i = 0; i < changes; ++i)
        {
            ASSERT_TRUE(_bystander.TestAndMerge("", "[Watched]\nk=" + std::to_string(i) + '\n'));
        }
        EXPECT_TRUE(_proxy.AwaitFault());
        EXPECT_TRUE(change.GetSeen().empty());
        _proxy.Resume();
        EXPECT_TRUE(change.Await(Ini("[Watched]\nk=" + std::to_string(changes - 1) + '\n')));
        EXPECT_EQ(change.GetSeen().size(), static_cast<std::size_t>(changes));
    }
    ExpectNothingLeft();
}

TEST_F(ServerFaultTest, ResetsWithoutEndLeaveNothingBehind)
{
    {
        LastChange change;
        KorloSettingsClient watching(KorloSettingsClient::MultiThreaded);
        KorloSettingsClient asking(KorloSettingsClient::SingleThreaded);
        watching.Subscribe(&change, "Watched");
        for (int i = 0; i < 100; ++i)
        {
            std::vector<std::unique_ptr<RawClient>> clients;
            for (int j = 0; j < 3; ++j)
            {
                clients.push_back(std::make_unique<RawClient>(_proxy.GetPort()));
                clients.back()->Send(
                    "subscribe\nWatched\n.\nmerge nopersist\n[Watched]\nk=1\n.\nget delimited\nBig\n.\n");
            }
            _proxy.ResetAll();
            EXPECT_EQ(Get(asking, "Big"), Ini(Big));
        }
        EXPECT_TRUE(Eventually([&] {
            EXPECT_TRUE(_bystander.TestAndMerge("", "[Watched]\nk=last\n"));
            const std::vector<IniFile> seen = change.GetSeen();
            return std::find(seen.begin(), seen.end(), Ini("[Watched]\nk=last\n")) != seen.end();
        }));
    }
    ExpectNothingLeft();
}

}  // namespace
}  // namespace korlo::daemon
