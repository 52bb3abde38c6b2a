#include "korlo/osa/TcpSocket.h"

#include <cerrno>
#include <chrono>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include "korlo/osa/Exception.h"
#include "korlo/osa/Mutex.h"
#include "korlo/osa/ServiceDirectory.h"
#include "support/Files.h"
#include "support/SocketBehaviour.h"
#include "support/TcpPair.h"

namespace korlo::osa
{
namespace
{

using namespace std::chrono_literals;

/// A port that nobody listens on.
unsigned short FreePort()
{
    return TcpListener("127.0.0.1", 0).GetPort();
}

/// A listener whose queue is so short that connecting to it has to wait.
class ShortListener
{
public:
    ShortListener()
    {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof(address);
        EXPECT_EQ(bind(_descriptor, reinterpret_cast<sockaddr*>(&address), length), 0);
        EXPECT_EQ(listen(_descriptor, 0), 0);
        EXPECT_EQ(getsockname(_descriptor, reinterpret_cast<sockaddr*>(&address), &length), 0);
        _port = ntohs(address.sin_port);
    }

    ShortListener(const ShortListener&) = delete;
    ShortListener& operator=(const ShortListener&) = delete;
    ~ShortListener() { close(_descriptor); }

    unsigned short GetPort() const { return _port; }

    /// Connects until nobody gets through any more; what the last one was told.
    std::string Fill()
    {
        std::string refusal;
        while (refusal.empty())
        {
            _waiting.push_back(std::make_unique<TcpSocket>(1));
            refusal = MessageOf([this] { _waiting.back()->Connect("127.0.0.1", _port, 20); });
        }
        return refusal;
    }

private:
    const int _descriptor = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    unsigned short _port = 0;
    std::vector<std::unique_ptr<TcpSocket>> _waiting;
};

TEST(TcpSocketTest, ConnectsByNameAndByAddress)
{
    TcpListener listener("127.0.0.1", 0);
    for (const char* host : {"127.0.0.1", "localhost"})
    {
        SCOPED_TRACE(host);
        TcpSocket socket(1);
        EXPECT_EQ(socket.GetPeerAddress(), "");
        socket.Connect(host, listener.GetPort(), 10);
        EXPECT_EQ(socket.GetPeerAddress(), "127.0.0.1:" + std::to_string(listener.GetPort()));
        EXPECT_NE(listener.Accept(), nullptr);
    }
}

TEST(TcpSocketTest, ALoopbackConnectNeedsNoTime)
{
    TcpListener listener("127.0.0.1", 0);
    TcpSocket socket(0);
    EXPECT_NO_THROW(socket.Connect("127.0.0.1", listener.GetPort(), 0));
}

TEST(TcpSocketTest, AFailedConnectNamesHostPortAndReasonAndMayBeRepeated)
{
    const unsigned short port = FreePort();
    TcpSocket socket(1);
    const std::string refused =
        "Failed to connect to '127.0.0.1' port " + std::to_string(port) + ": Connection refused";
    EXPECT_EQ(MessageOf([&] { socket.Connect("127.0.0.1", port, 1000); }), refused);
    EXPECT_EQ(MessageOf([&] { socket.Connect("127.0.0.1", port, Infinite); }), refused);

    TcpListener listener("127.0.0.1", 0);
    EXPECT_NO_THROW(socket.Connect("127.0.0.1", listener.GetPort(), 1000));
}

TEST(TcpSocketTest, AnUnknownHostIsNamedInTheFailure)
{
    TcpSocket socket(1);
    const std::string text = MessageOf([&] { socket.Connect("no such host.invalid", 80, 1000); });
    EXPECT_EQ(text.find("Failed to connect to 'no such host.invalid' port 80: "), 0u) << text;
    EXPECT_EQ(MessageOf([&] { socket.Connect(nullptr, 80, 1000); }), "Host was NULL");
}

TEST(TcpSocketTest, AConnectThatWaitsGivesUpWhenTheTimeIsUp)
{
    ShortListener listener;
    EXPECT_EQ(listener.Fill(),
              "Failed to connect to '127.0.0.1' port " + std::to_string(listener.GetPort()) + ": Connection timed out");
}

TEST(TcpSocketTest, ACloseFromAnotherThreadEndsAConnectThatWaits)
{
    ShortListener listener;
    listener.Fill();
    TcpSocket socket(1);
    auto connecting = std::async(std::launch::async, [&] {
        return MessageOf([&] { socket.Connect("127.0.0.1", listener.GetPort(), Infinite); });
    });
    connecting.wait_for(5ms);  // it may be waiting by now, or find the socket closed: it must end either way
    socket.Close();
    ASSERT_EQ(connecting.wait_for(10s), std::future_status::ready);
    EXPECT_NE(connecting.get(), "");
}

TEST(TcpSocketTest, ConnectsOnlyOnceAndNotAfterTheClose)
{
    TcpPair pair;
    EXPECT_EQ(MessageOf([&] { pair.client.Connect("localhost", 80, 10); }),
              "Failed to connect to 'localhost': the socket is connected to '" + pair.client.GetPeerAddress() + "'");

    TcpSocket closed(1);
    closed.Close();
    EXPECT_EQ(MessageOf([&] { closed.Connect("127.0.0.1", pair.listener.GetPort(), 10); }),
              "Failed to connect to '127.0.0.1' port " + std::to_string(pair.listener.GetPort()) +
                  ": Operation canceled");
}

TEST(TcpSocketTest, WithoutAPortTheDirectoryIsAskedFirst)
{
    TcpListener listener("127.0.0.1", 0);
    ServiceDirectory::Register("socket-test-server", "127.0.0.1", listener.GetPort());
    TcpSocket socket(1);
    EXPECT_NO_THROW(socket.Connect("socket-test-server", 0, 10));
    EXPECT_EQ(socket.GetPeerAddress(), "127.0.0.1:" + std::to_string(listener.GetPort()));

    const unsigned short port = FreePort();
    ServiceDirectory::Register("socket-test-server", "127.0.0.1", port);
    TcpSocket other(1);
    EXPECT_EQ(MessageOf([&] { other.Connect("socket-test-server", 0, 10); }),
              "Failed to connect to 'socket-test-server' port " + std::to_string(port) + ": Connection refused");
    ServiceDirectory::Unregister("socket-test-server");
}

TEST(TcpSocketTest, MovesBytesBothWays)
{
    TcpPair pair;
    EXPECT_EQ(pair.client.WriteAll("ping", 4, Infinite).status, TcpSocket::Done);
    EXPECT_EQ(ReadBytes(*pair.pServer, 4), "ping");
    EXPECT_EQ(pair.pServer->WriteAll("po", 2, "ng", 2, 0).bytes, 4u);
    EXPECT_EQ(ReadBytes(pair.client, 4), "pong");
    EXPECT_EQ(pair.client.WriteAll(nullptr, 0, 0).status, TcpSocket::Done);
    EXPECT_EQ(pair.client.WriteSome(nullptr, 0, 0).status, TcpSocket::Done);
}

TEST(TcpSocketTest, AReadTimesOutWhenNothingComes)
{
    TcpPair pair;
    char byte = 0;
    EXPECT_EQ(pair.client.ReadSome(&byte, 1, 0).status, TcpSocket::TimedOut);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(pair.client.ReadSome(&byte, 1, 20).status, TcpSocket::TimedOut);
    EXPECT_GE(std::chrono::steady_clock::now() - start, 20ms);
}

TEST(TcpSocketTest, AWriteTimesOutWhenThePeerDoesNotRead)
{
    TcpPair pair;
    const std::string bytes(1 << 20, 'x');
    std::size_t sent = 0;
    TcpSocket::IoResult result{};
    while ((result = pair.client.WriteSome(bytes.data(), bytes.size(), 0)).status == TcpSocket::Done)
    {
        EXPECT_GT(result.bytes, 0u);
        sent += result.bytes;
    }
    EXPECT_EQ(result.status, TcpSocket::TimedOut);
    result = pair.client.WriteAll(bytes.data(), bytes.size(), 20);
    EXPECT_EQ(result.status, TcpSocket::TimedOut);
    EXPECT_LT(result.bytes, bytes.size());
    sent += result.bytes;
    EXPECT_EQ(ReadBytes(*pair.pServer, sent), std::string(sent, 'x'));
}

TEST(TcpSocketTest, CompletesAWriteThatTheConnectionTakesInParts)
{
    ExpectThatALargeWriteIsCompleted<TcpPair>();
}

TEST(TcpSocketTest, ReportsTheEndOfTheStreamWhenThePeerCloses)
{
    ExpectThatTheEndComesBehindTheLastBytes<TcpPair>();
}

TEST(TcpSocketTest, AWriteToAPeerThatHasGoneFailsWithoutASignal)
{
    TcpPair pair;
    pair.pServer.reset();
    TcpSocket::IoResult result{};
    while ((result = pair.client.WriteAll("x", 1, Infinite)).status == TcpSocket::Done)
    {
        std::this_thread::yield();
    }
    EXPECT_EQ(result.status, TcpSocket::Failed);
    EXPECT_TRUE(result.error == EPIPE || result.error == ECONNRESET) << result.error;
}

TEST(TcpSocketTest, AnUnconnectedSocketFailsToReadAndWrite)
{
    TcpSocket socket(1);
    char byte = 0;
    EXPECT_EQ(socket.ReadSome(&byte, 1, Infinite).status, TcpSocket::Failed);
    EXPECT_EQ(socket.WriteAll(&byte, 1, Infinite).status, TcpSocket::Failed);
}

TEST(TcpSocketTest, ACloseFromAnotherThreadWakesTheReader)
{
    ExpectThatACloseWakesTheReader<TcpPair>();
}

TEST(TcpSocketTest, ACloseFromAnotherThreadWakesTheWriter)
{
    ExpectThatACloseWakesTheWriter<TcpPair>(32 << 20);
}

TEST(TcpSocketTest, AnInterruptedReadGoesOn)
{
    ExpectThatAnInterruptedReadGoesOn<TcpPair>();
}

/// Writes until nothing is taken any more: a busy system takes more once it has had time to move what there was.
TcpSocket::IoStatus WriteUntilItEnds(TcpSocket& socket, unsigned int timeoutMs)
{
    const std::string much(32 * 1024 * 1024, 'm');  // more than the system keeps for a connection
    TcpSocket::IoResult result{};
    do
    {
        result = socket.WriteSome(much.data(), much.size(), timeoutMs);
    } while (result.status == TcpSocket::Done);
    return result.status;
}

TEST(TcpSocketTest, AWriteThatIsLimitedEndsHoweverLongItMayTake)
{
    TcpPair pair;
    const std::string much(32 * 1024 * 1024, 'm');
    pair.client.LimitWrites(10);
    EXPECT_EQ(pair.client.WriteAll(much.data(), much.size(), Infinite).status, TcpSocket::TimedOut);
    EXPECT_EQ(WriteUntilItEnds(pair.client, Infinite), TcpSocket::TimedOut);
    pair.client.LimitWrites(Infinite);
    EXPECT_EQ(WriteUntilItEnds(pair.client, 0), TcpSocket::TimedOut);
}

TEST(TcpSocketTest, DoesNotPassToProgramsThatThisProcessStarts)
{
    TcpPair pair;
    for (int descriptor = 3; descriptor < 256; ++descriptor)
    {
        int type = 0;
        socklen_t length = sizeof(type);
        if (getsockopt(descriptor, SOL_SOCKET, SO_TYPE, &type, &length) == 0 && type == SOCK_STREAM)
        {
            EXPECT_NE(fcntl(descriptor, F_GETFD) & FD_CLOEXEC, 0) << descriptor;
        }
    }
}

unsigned short PortBy(int (*pName)(int, sockaddr*, socklen_t*), int descriptor)
{
    sockaddr_in address{};
    socklen_t length = sizeof(address);
    return pName(descriptor, reinterpret_cast<sockaddr*>(&address), &length) == 0 ? ntohs(address.sin_port) : 0;
}

/// The times in which either end of the connection to `port` must take what was sent to it.
std::vector<unsigned int> AcknowledgementLimits(unsigned short port)
{
    std::vector<unsigned int> limits;
    for (int descriptor = 3; descriptor < 256; ++descriptor)
    {
        const unsigned short peerPort = PortBy(getpeername, descriptor);
        if (peerPort == port || (peerPort != 0 && PortBy(getsockname, descriptor) == port))
        {
            socklen_t length = sizeof(unsigned int);
            getsockopt(descriptor, IPPROTO_TCP, TCP_USER_TIMEOUT, &limits.emplace_back(), &length);
        }
    }
    return limits;
}

TEST(TcpSocketTest, BothEndsGiveUpAPeerThatTakesNothingForTwoMinutes)
{
    TcpPair pair;
    EXPECT_EQ(AcknowledgementLimits(pair.listener.GetPort()), (std::vector<unsigned int>{120'000, 120'000}));
}

TEST(TcpSocketTest, NamesAnIpv6PeerInBrackets)
{
    std::unique_ptr<TcpListener> pListener;
    const std::string refused = MessageOf([&] { pListener = std::make_unique<TcpListener>("::1", 0); });
    if (!refused.empty())
    {
        GTEST_SKIP() << "this machine has no IPv6: " << refused;
    }
    TcpSocket socket(1);
    socket.Connect("::1", pListener->GetPort(), 10);
    EXPECT_EQ(socket.GetPeerAddress(), "[::1]:" + std::to_string(pListener->GetPort()));
    EXPECT_EQ(pListener->GetAddress(), socket.GetPeerAddress());
}

}  // namespace

}  // namespace korlo::osa
