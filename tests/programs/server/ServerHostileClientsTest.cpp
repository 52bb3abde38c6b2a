// Clients that break off, flood or send nonsense: each costs its own connection and nothing else.

#include <array>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <vector>

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include "support/Files.h"
#include "support/Growth.h"
#include "support/ServerProcess.h"
#include "support/TemporaryFolder.h"

namespace korlo::daemon
{
namespace
{

using testing::HasSubstr;

class ServerHostileClientsTest : public testing::Test
{
protected:
    static constexpr std::size_t MaxMessage = 100'000;

    ServerHostileClientsTest()
    {
        EXPECT_EQ(_bystander.Get("*"), "");
        _threads = _server.CountThreads();
        _descriptors = _server.CountDescriptors();
    }

    /// Expects the server to be as it was before the client came, and the bystander to be served.
    void ExpectNothingLeft()
    {
        EXPECT_TRUE(Eventually([this] { return _server.CountThreads() == _threads; }));
        EXPECT_TRUE(Eventually([this] { return _server.CountDescriptors() == _descriptors; }));
        EXPECT_TRUE(_bystander.TestAndMerge("", "[Bystander]\nk=1\n"));
        EXPECT_EQ(_bystander.Get("Bystander"), "[Bystander]\nk=1\n");
    }

    /// Sends `text` again and again until the server ends the connection.
    void FloodUntilDisconnected(const std::string& start, const std::string& text)
    {
        RawClient client(_server.GetPort());
        client.Send(start);
        std::size_t sent = 0;
        while (client.Send(text))
        {
            sent += text.size();
            ASSERT_LT(sent, 1'000'000'000u);
        }
        _server.GetChild().AwaitErrors("is disconnected, its request is larger than 100000 bytes");
        EXPECT_THAT(_server.GetChild().GetErrors(), HasSubstr("Client '127.0.0.1:"));
        ExpectNothingLeft();
    }

    TemporaryFolder _folder;
    ServerProcess _server{{"--user", _folder.PathOf("user.ini"), "--max-message", std::to_string(MaxMessage)}};
    RawClient _bystander{_server.GetPort()};
    std::size_t _threads = 0;
    std::size_t _descriptors = 0;
};

TEST_F(ServerHostileClientsTest, AnEndlessLine)
{
    FloodUntilDisconnected("", std::string(10'000, 'x'));
}

TEST_F(ServerHostileClientsTest, AnEndlessLineInABlock)
{
    FloodUntilDisconnected("merge\n[A]\nk=", std::string(10'000, 'x'));
}

TEST_F(ServerHostileClientsTest, AnEndlessBlock)
{
    FloodUntilDisconnected("merge\n", "[Group]\nkey=value\n");
}

TEST_F(ServerHostileClientsTest, AnEndlessGroupList)
{
    FloodUntilDisconnected("subscribe\n", "Group\n");
}

TEST_F(ServerHostileClientsTest, SubscriptionsWithoutEnd)
{
    RawClient client(_server.GetPort());
    bool isConnected = true;
    for (int i = 0; isConnected; ++i)
    {
        ASSERT_LT(i, 1000);
        isConnected = client.Send("subscribe\n" + std::string(1000, 'x') + std::to_string(i) + "\n.\n") &&
                      client.Get("None").empty() && client.GetStream().good();
    }
    _server.GetChild().AwaitErrors("is disconnected, it has subscribed to more than 100000 bytes of groups");
    ExpectNothingLeft();
}

TEST_F(ServerHostileClientsTest, TheSameSubscriptionWithoutEnd)
{
    RawClient client(_server.GetPort());
    const std::string request = "subscribe\n" + std::string(1000, 'x') + "\n.\n";
    bool isConnected = true;
    for (int i = 0; isConnected; ++i)
    {
        ASSERT_LT(i, 1000);
        isConnected = client.Send(request) && client.Get("None").empty() && client.GetStream().good();
    }
    _server.GetChild().AwaitErrors("is disconnected, it has subscribed to more than 100000 bytes of groups");
    ExpectNothingLeft();
}

TEST_F(ServerHostileClientsTest, ARequestOfExactlyTheLimitIsCarriedOutAndOneByteMoreIsNot)
{
    const std::string head = "merge\n[A]\nk=";
    const std::string tail = "\n.\n";
    const std::string value(MaxMessage - head.size() - tail.size(), 'v');
    RawClient client(_server.GetPort());
    client.Send(head + value + tail + head + value + tail);  // the count begins anew with each request
    EXPECT_EQ(client.Get("A"), "[A]\nk=" + value + '\n');
    client.Send(head + "x" + value + tail);
    EXPECT_TRUE(client.MeetsTheEnd());
    EXPECT_EQ(_bystander.Get("A"), "[A]\nk=" + value + '\n');
    _server.GetChild().AwaitErrors("larger than 100000 bytes");
}

TEST_F(ServerHostileClientsTest, ABodyThatAnnouncesFourThousandMillionGroupsAndSendsThem)
{
    FloodUntilDisconnected("serialize phparray\nmerge\na:4000000000:{", "s:5:\"Group\";a:0:{}");
}

TEST_F(ServerHostileClientsTest, ABodyThatAnnouncesFourThousandMillionBytesAndSendsThem)
{
    FloodUntilDisconnected("serialize phparray\nmerge\na:1:{s:4000000000:\"", std::string(10'000, 'x'));
}

TEST_F(ServerHostileClientsTest, ABodyThatAnnouncesFourThousandMillionElementsAndSendsNone)
{
    const std::size_t residentKiB = _server.GetResidentKiB();
    for (const char* body : {"a:4000000000:{}", "a:1:{s:1:\"A\";a:4000000000:{}", "a:99999999999:{}"})
    {
        RawClient client(_server.GetPort());
        client.Send(std::string("serialize phparray\nmerge\n") + body + "\n.\n");
        EXPECT_TRUE(client.MeetsTheEnd());
    }
    _server.GetChild().AwaitErrors("its request failed: failed to read size specification");
    EXPECT_THAT(_server.GetChild().GetErrors(), HasSubstr("its request failed: expected: 's' but got: '}'"));
    EXPECT_LT(_server.GetResidentKiB(), residentKiB + GrowthKiB(8 * 1024));
    ExpectNothingLeft();
    EXPECT_EQ(_bystander.Get("A"), "");
}

TEST_F(ServerHostileClientsTest, Garbage)
{
    std::string garbage;
    unsigned int state = 1;
    for (int i = 0; i < 50'000; ++i)
    {
        state = state * 1664525u + 1013904223u;
        garbage += static_cast<char>(state >> 24);
    }
    {
        RawClient client(_server.GetPort());
        client.Send(garbage);
        client.Send("\n.\n.\n.\n");
        EXPECT_EQ(client.Get("None"), "");
    }
    ExpectNothingLeft();
}

TEST_F(ServerHostileClientsTest, OneThatLeavesInTheMiddleOfARequest)
{
    RawClient(_server.GetPort()).Send("merge\n[A]\nk=1\n");
    _server.GetChild().AwaitErrors("is disconnected, it left in the middle of a request");
    ExpectNothingLeft();
    EXPECT_EQ(_bystander.Get("A"), "");
}

/// A plain socket, for what the library's does not do.
class PlainSocket
{
public:
    explicit PlainSocket(unsigned short port)
    {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(::connect(_descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
    }
    PlainSocket(const PlainSocket&) = delete;
    PlainSocket& operator=(const PlainSocket&) = delete;
    ~PlainSocket() { ::close(_descriptor); }

    int Get() const { return _descriptor; }

    void Send(const std::string& text) const
    {
        EXPECT_EQ(::send(_descriptor, text.data(), text.size(), MSG_NOSIGNAL), static_cast<ssize_t>(text.size()));
    }

private:
    const int _descriptor = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
};

TEST_F(ServerHostileClientsTest, OneThatResetsTheConnection)
{
    {
        const PlainSocket client(_server.GetPort());
        client.Send("subscribe\nA\n.\nmerge\n[A]\n");
        const linger reset{1, 0};
        ::setsockopt(client.Get(), SOL_SOCKET, SO_LINGER, &reset, sizeof(reset));
    }
    _server.GetChild().AwaitErrors("is disconnected, the connection was lost: Connection reset by peer");
    ExpectNothingLeft();
}

TEST_F(ServerHostileClientsTest, OneThatHasSentItsLastStillGetsItsResponses)
{
    EXPECT_TRUE(RawClient(_server.GetPort()).TestAndMerge("", "[Big]\nk=" + std::string(90'000, 'x') + '\n'));
    {
        const PlainSocket client(_server.GetPort());
        constexpr int requests = 200;
        std::string pipelined;
        for (int i = 0; i < requests; ++i)
        {
            pipelined += "get delimited\nBig\n.\n";
        }
        client.Send(pipelined);
        ::shutdown(client.Get(), SHUT_WR);
        std::size_t received = 0;
        std::vector<char> piece(100'000);
        for (ssize_t part = 1; part > 0; received += static_cast<std::size_t>(part))
        {
            part = ::recv(client.Get(), piece.data(), piece.size(), 0);
        }
        EXPECT_EQ(received, requests * std::string("data\n[Big]\nk=\n.\n").size() + requests * 90'000u);
    }
    ExpectNothingLeft();
}

TEST_F(ServerHostileClientsTest, ManyThatComeAndGo)
{
    for (int i = 0; i < 300; ++i)
    {
        RawClient client(_server.GetPort());
        client.Send(i % 3 == 0 ? "subscribe\nA*\n.\n" : i % 3 == 1 ? "quit\n" : "merge\n[");
    }
    ExpectNothingLeft();
}

}  // namespace
}  // namespace korlo::daemon
