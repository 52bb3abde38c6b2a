// What a connection of the server does where memory runs out. A program of its own, because it replaces the global
// operator new.

#include <memory>
#include <string>
#include <utility>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ClientConnection.h"
#include "korlo/osa/TcpSocketStream.h"
#include "support/ExchangeStore.h"
#include "support/LogWatch.h"
#include "support/ShortMemory.h"
#include "support/TcpPair.h"

namespace korlo::daemon
{
namespace
{

using testing::ElementsAre;
using testing::HasSubstr;

constexpr unsigned int LimitMs = 30'000;

/// Needs to hear of nothing.
///
/// Thread safety: all methods, from any thread.
class AnyOwner : public IConnectionOwner
{
public:
    void OnConnectionEnded(ClientConnection&) override {}
};

/// Connections to a store with one large group.
class ConnectionMemoryTest : public testing::Test
{
protected:
    /// A connection that has carried out the requests, and the client's end of it.
    struct Served
    {
        Served(ConnectionMemoryTest& test, const std::string& requests)
            : connection(std::move(pair.pServer), peer, test.store.env, test.access, ServerLimits(), test.gathered,
                         test.owner)
        {
            connection.Start();
            stream.GetOstream() << requests + "get delimited\n.\n" << std::flush;
            std::string line;
            EXPECT_TRUE(std::getline(stream, line) && std::getline(stream, line));
            EXPECT_EQ(line, ".");
        }

        Served(const Served&) = delete;
        Served& operator=(const Served&) = delete;
        ~Served() { pair.client.Close(); }

        bool MeetsTheEnd() { return stream.peek() == std::char_traits<char>::eof(); }

        TcpPair pair;
        const std::string peer = pair.pServer->GetPeerAddress();
        osa::TcpSocketStream stream{&pair.client, LimitMs};
        ClientConnection connection;
    };

    ConnectionMemoryTest()
    {
        core::IniFile large;
        large.SetValue("Large", "k", std::string(2 * ShortMemory::LargestBytes, 'x'));
        store.manager.MergeSettings(large, settings::server::SettingsManager::DoNotPersist);
    }

    LogWatch log;
    settings::server::ExchangeStore store;
    AccessControl access{nullptr, std::nullopt};
    GatheredQueues gathered;
    AnyOwner owner;
};

TEST_F(ConnectionMemoryTest, AResponseThatMemoryDoesNotSufficeForEndsTheConnection)
{
    Served reader(*this, "");
    {
        const ShortMemory shortMemory;
        reader.stream.GetOstream() << "get delimited\nLarge\n.\n" << std::flush;
        EXPECT_TRUE(reader.MeetsTheEnd());
    }
    EXPECT_THAT(log.GetMessages(), ElementsAre(HasSubstr("its request failed: std::bad_alloc")));
}

TEST_F(ConnectionMemoryTest, ARequestThatMemoryDoesNotSufficeForIsNotTakenForOneThatWasCut)
{
    Served client(*this, "");
    const std::string request = "info " + std::string(2 * ShortMemory::LargestBytes, 'x') + '\n';
    {
        const ShortMemory shortMemory;
        EXPECT_EQ(client.pair.client.WriteAll(request.data(), request.size(), LimitMs).status, osa::TcpSocket::Done);
        EXPECT_TRUE(client.MeetsTheEnd());
    }
    EXPECT_THAT(log.GetMessages(), ElementsAre(HasSubstr("its request failed: std::bad_alloc")));
}

TEST_F(ConnectionMemoryTest, ANotificationThatMemoryDoesNotSufficeForCostsItsSubscriberAlone)
{
    Served subscriber(*this, "subscribe\nLarge\n.\n");
    Served bystander(*this, "subscribe\nAudio\n.\n");
    Served changer(*this, "");
    {
        const ShortMemory shortMemory;
        changer.stream.GetOstream() << "merge nopersist\n[Large]\nl=1\n[Audio]\nvolume=9\n.\n" << std::flush;
        EXPECT_TRUE(subscriber.MeetsTheEnd());
    }
    changer.stream.GetOstream() << "get delimited\n.\n" << std::flush;
    std::string line;
    EXPECT_TRUE(std::getline(changer.stream, line));
    EXPECT_EQ(line, "data");
    EXPECT_TRUE(std::getline(bystander.stream, line));
    EXPECT_EQ(line, "async change");
    EXPECT_TRUE(log.WaitFor("4 ClientConnection: Client '" + subscriber.peer +
                            "' is disconnected, a notification failed: std::bad_alloc"));
    EXPECT_THAT(log.GetMessages(), testing::SizeIs(1));
}

}  // namespace
}  // namespace korlo::daemon
