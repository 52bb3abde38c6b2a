// Whether the fleet knows if a device is there.

#include <cerrno>
#include <chrono>
#include <iomanip>
#include <ios>
#include <sstream>
#include <string>
#include <vector>

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "support/BridgeScene.h"

namespace korlo
{
namespace
{

using testing::AnyOf;
using testing::Each;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;

constexpr const char* IsOnline = R"("online":true)";
constexpr const char* IsOffline = R"("online":false)";

class BridgePresenceTest : public BridgeScene
{
};

TEST_F(BridgePresenceTest, StatusTellsTheSessionAndTheVersion)
{
    StartAll("[A]\nk=1\n");
    EXPECT_THAT(Fleet().Last(Status()),
                MatchesRegex(R"(\{"online":true,"session":"[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-)"
                             R"([0-9a-f]{12}","settings":true,"version":")" KORLO_VERSION R"("\})"));
}

TEST_F(BridgePresenceTest, AnOrderlyEndIsToldAndLeavesNoWill)
{
    for (const int signal : {SIGTERM, SIGINT})
    {
        StartAll("[A]\nk=1\n");
        EXPECT_EQ(_pBridge->End(signal), 0);
        Fleet().Await(Status(), IsOffline);
        EndServer();
    }
}

TEST_F(BridgePresenceTest, APowerCutIsSeenAndAQuickReturnIsNot)
{
    StartServer("[A]\nk=1\n");
    StartBridge();
    AwaitBridge();
    WriteFile(PathOf("other.ini"), "[Broker]\nhost=127.0.0.1\nport=" + std::to_string(_broker.GetPort()) +
                                       "\n[Device]\nname=other\n[Settings]\naddress=" + Address() + '\n');
    BridgeProcess other(PathOf("other.ini"));
    const std::string otherStatus = "korlo/1/other/status";
    Fleet().Await(otherStatus, IsOnline);
    Fleet().Forget();

    const auto cut = std::chrono::steady_clock::now();
    _pBridge->End(SIGKILL);
    other.End(SIGKILL);
    StartBridge();
    Fleet().Await(Status(), IsOnline);
    Fleet().Await(otherStatus, IsOffline);
    EXPECT_GE(std::chrono::steady_clock::now() - cut, std::chrono::seconds(4));
    Fleet().CatchUp();
    EXPECT_THAT(Fleet().All(Status()), Each(HasSubstr(IsOnline)));
}

TEST_F(BridgePresenceTest, AStatusThatIsWrongIsCorrectedAtOnce)
{
    StartAll("[A]\nk=1\n");
    for (const char* wrong : {R"({"online":false,"session":"old"})", "", "rubbish"})
    {
        Fleet().Publish(Status(), wrong, MqttClient::Retained);
        Fleet().Await(Status(), IsOnline);
    }
}

TEST_F(BridgePresenceTest, StatusIsTrueAgainAfterTheBrokerWasAway)
{
    StartAll("[A]\nk=1\n");
    for (const int signal : {SIGTERM, SIGKILL})
    {
        _pFleet.reset();
        _broker.End(signal);
        _pBridge->AwaitLog("Lost the broker at 127.0.0.1:");
        _broker.Start();
        Fleet().Await(Status(), IsOnline);
    }
}

TEST_F(BridgePresenceTest, ASecondBridgeOfTheNameIsExplained)
{
    StartAll("[A]\nk=1\n");
    BridgeProcess second(PathOf("mqtt.ini"));
    _pBridge->AwaitLog("Another client says that it is this device: is there a second bridge of this name?");
    _pBridge->End();
    Fleet().Await(Status(), IsOnline);
}

TEST_F(BridgePresenceTest, ABrokerThatHangsDoesNotKeepTheBridge)
{
    StartAll("[A]\nk=1\n");
    _broker.Signal(SIGSTOP);
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(_pBridge->End(), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(20));
    _broker.Signal(SIGCONT);
}

/// A port where connections are never accepted: one that waits already fills the queue.
class FullPort
{
public:
    FullPort()
    {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        _listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        ::bind(_listener, reinterpret_cast<const sockaddr*>(&address), sizeof(address));
        ::listen(_listener, 0);
        socklen_t length = sizeof(address);
        ::getsockname(_listener, reinterpret_cast<sockaddr*>(&address), &length);
        _port = ntohs(address.sin_port);
        constexpr int clients = 4;
        for (int count = 0; count < clients; ++count)
        {
            _clients.push_back(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
            ::connect(_clients.back(), reinterpret_cast<const sockaddr*>(&address), sizeof(address));
        }
    }

    FullPort(const FullPort&) = delete;
    FullPort& operator=(const FullPort&) = delete;

    ~FullPort()
    {
        for (const int client : _clients)
        {
            ::close(client);
        }
        ::close(_listener);
    }

    unsigned short GetPort() const { return _port; }

    /// Connections that wait for it to answer.
    std::size_t CountCalls() const
    {
        std::ostringstream port;
        port << ':' << std::uppercase << std::hex << std::setw(4) << std::setfill('0') << _port << " 02 ";
        const std::string connections = ContentOf("/proc/net/tcp").value_or("");
        std::size_t count = 0;
        for (std::size_t at = connections.find(port.str()); at != std::string::npos;
             at = connections.find(port.str(), at + 1))
        {
            ++count;
        }
        return count;
    }

private:
    int _listener = -1;
    unsigned short _port = 0;
    std::vector<int> _clients;
};

TEST_F(BridgePresenceTest, AHostThatDoesNotAnswerDoesNotKeepTheBridge)
{
    StartServer("[A]\nk=1\n");
    const FullPort port;
    WriteFile(PathOf("mqtt.ini"), "[Broker]\nhost=127.0.0.1\nport=" + std::to_string(port.GetPort()) +
                                      "\n[Device]\nname=panel\n[Settings]\naddress=" + Address() + '\n');
    const std::size_t calls = port.CountCalls();
    BridgeProcess bridge(PathOf("mqtt.ini"));
    ASSERT_TRUE(Eventually([&] { return port.CountCalls() > calls; }));
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(bridge.End(), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(15));
}

TEST_F(BridgePresenceTest, ASettingsServerThatHangsDelaysNoAnswerToTheBroker)
{
    StartServer("[A]\nk=1\n");
    StartBridge(Everything, "keepalive=5\n");
    AwaitBridge();
    _pServer->GetChild().Signal(SIGSTOP);
    Wish("A", R"({"k":"2"})", 1);
    Fleet().Forget();
    // What a hanging server cannot delay: a wrong status is corrected.
    Fleet().Publish(Status(), R"({"online":false})", MqttClient::Retained);
    Fleet().Await(Status(), IsOnline);
    _pServer->GetChild().Signal(SIGCONT);
    AwaitAccepted("A", 1);
}

TEST_F(BridgePresenceTest, AWrongConfigurationIsStatus2WithFileAndLine)
{
    WriteFile(PathOf("mqtt.ini"), "[Broker]\nhost=h\nport=x\n");
    BridgeProcess bridge(PathOf("mqtt.ini"));
    EXPECT_EQ(bridge.GetChild().Wait(), 2);
    EXPECT_EQ(bridge.GetChild().GetErrors(),
              "korlo-settings-mqtt: " + PathOf("mqtt.ini") + ":3: port: 'x' is not a number from 1 to 65535\n");
}

}  // namespace
}  // namespace korlo
