// Listening on sockets that a service manager passed.

#include <cerrno>
#include <chrono>
#include <future>
#include <memory>
#include <string>

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "korlo/osa/Exception.h"
#include "korlo/osa/TcpListener.h"
#include "support/Files.h"
#include "support/TemporaryFolder.h"
#include "support/UnixSockets.h"

namespace korlo::osa
{
namespace
{

using namespace std::chrono_literals;

/// What a service manager holds: a socket file that it listens on, and descriptors of it to pass on.
class ServiceManager
{
public:
    ServiceManager()
    {
        EXPECT_EQ(_socket.Bind(path), 0);
        EXPECT_EQ(_socket.Listen(), 0);
    }

    int Pass() const { return dup(_socket.Get()); }

    const TemporaryFolder folder;
    const std::string path = folder.PathOf("socket");
    const std::string address = "unix:" + path;

private:
    RawUnixSocket _socket;
};

TEST(PassedListenerTest, AcceptsOnAUnixDomainSocketAndNamesItsPath)
{
    const ServiceManager manager;
    TcpListener listener(manager.Pass());
    EXPECT_EQ(listener.GetAddress(), manager.address);
    EXPECT_EQ(listener.GetPort(), 0);
    TcpSocket client(1);
    client.Connect(manager.address.c_str(), 0, Infinite);
    const std::unique_ptr<TcpSocket> pServer = listener.Accept();
    EXPECT_EQ(pServer->GetPeerAddress(), manager.address);
    ASSERT_NE(pServer->GetPeerIdentity(), nullptr);
    EXPECT_EQ(pServer->GetPeerIdentity()->process, getpid());
}

TEST(PassedListenerTest, AcceptsOverTcpAndNamesAddressAndPort)
{
    OwnedDescriptor passed(socket(AF_INET, SOCK_STREAM, 0));
    ASSERT_EQ(listen(passed.Get(), SOMAXCONN), 0);
    TcpListener listener(passed.Release());
    EXPECT_NE(listener.GetPort(), 0);
    EXPECT_EQ(listener.GetAddress(), "0.0.0.0:" + std::to_string(listener.GetPort()));
    TcpSocket client(1);
    client.Connect("127.0.0.1", listener.GetPort(), Infinite);
    const std::unique_ptr<TcpSocket> pServer = listener.Accept();
    EXPECT_EQ(pServer->GetPeerAddress().find("127.0.0.1:"), 0u);
    EXPECT_EQ(pServer->GetPeerIdentity(), nullptr);
}

TEST(PassedListenerTest, NamesAnIpv6AddressInBrackets)
{
    const int descriptor = socket(AF_INET6, SOCK_STREAM, 0);
    if (descriptor < 0)
    {
        EXPECT_EQ(errno, EAFNOSUPPORT);  // this machine has no IPv6
        return;
    }
    ASSERT_EQ(listen(descriptor, SOMAXCONN), 0);
    TcpListener listener(descriptor);
    EXPECT_EQ(listener.GetAddress(), "[::]:" + std::to_string(listener.GetPort()));
}

TEST(PassedListenerTest, NamesASocketWithoutAFileForWhatItIs)
{
    RawUnixSocket passed;
    const std::string name = "korlo-test-" + std::to_string(getpid());
    ASSERT_EQ(passed.Bind('\0' + name + '\0' + "x"), 0);
    ASSERT_EQ(passed.Listen(), 0);
    EXPECT_EQ(TcpListener(passed.Release()).GetAddress(), "unix:@" + name + "@x");
}

TEST(PassedListenerTest, NamesAPathOfTheFullLength)
{
    TemporaryFolder folder;
    const std::string path = folder.PathOf(std::string(107 - folder.GetPath().size(), 'x'));
    RawUnixSocket passed;
    ASSERT_EQ(passed.Bind(path), 0);
    ASSERT_EQ(passed.Listen(), 0);
    EXPECT_EQ(TcpListener(passed.Release()).GetAddress(), "unix:" + path);
}

TEST(PassedListenerTest, RefusesWhatIsNoListeningStreamSocketAndLeavesItAlone)
{
    const OwnedDescriptor datagrams(socket(AF_INET, SOCK_DGRAM, 0));
    const OwnedDescriptor local(socket(AF_UNIX, SOCK_DGRAM, 0));
    const OwnedDescriptor packets(socket(AF_UNIX, SOCK_SEQPACKET, 0));
    const OwnedDescriptor silent(socket(AF_INET, SOCK_STREAM, 0));
    const OwnedDescriptor file(open("/dev/null", O_RDONLY));
    const struct
    {
        int descriptor;
        const char* reason;
    } rows[] = {
        {datagrams.Get(), "it is a datagram socket, and clients need a stream socket"},
        {local.Get(), "it is a datagram socket, and clients need a stream socket"},
        {packets.Get(), "it is no stream socket"},
        {silent.Get(), "it does not listen"},
        {file.Get(), "it is no socket"},
        {-1, "Bad file descriptor"},
    };
    for (const auto& row : rows)
    {
        EXPECT_EQ(MessageOf([&] { TcpListener{row.descriptor}; }),
                  "Failed to listen on descriptor " + std::to_string(row.descriptor) + ": " + row.reason);
        if (row.descriptor >= 0)
        {
            EXPECT_EQ(fcntl(row.descriptor, F_GETFD), 0) << row.reason;
            EXPECT_EQ(fcntl(row.descriptor, F_GETFL) & O_NONBLOCK, 0) << row.reason;
        }
    }
}

TEST(PassedListenerTest, ClosesItOnExec)
{
    const ServiceManager manager;
    const int descriptor = manager.Pass();
    ASSERT_EQ(fcntl(descriptor, F_GETFD), 0);
    TcpListener listener(descriptor);
    EXPECT_EQ(fcntl(descriptor, F_GETFD), FD_CLOEXEC);
}

TEST(PassedListenerTest, ACloseEndsTheWaitAndNothingElse)
{
    const ServiceManager manager;
    auto pListener = std::make_unique<TcpListener>(manager.Pass());
    auto accepting = std::async(std::launch::async, [&] { return pListener->Accept() == nullptr; });
    EXPECT_EQ(accepting.wait_for(5ms), std::future_status::timeout);
    pListener->Close();
    ASSERT_EQ(accepting.wait_for(10s), std::future_status::ready);
    EXPECT_TRUE(accepting.get());
    EXPECT_EQ(pListener->Accept(), nullptr);

    TcpSocket closing(1);
    closing.Connect(manager.address.c_str(), 0, Infinite);
    pListener.reset();
    struct stat found = {};
    EXPECT_EQ(lstat(manager.path.c_str(), &found), 0);
    TcpSocket between(1);
    between.Connect(manager.address.c_str(), 0, Infinite);
    EXPECT_EQ(between.WriteAll("x", 1, Infinite).status, TcpSocket::Done);

    TcpListener next(manager.Pass());
    EXPECT_NE(next.Accept(), nullptr);
    const std::unique_ptr<TcpSocket> pServed = next.Accept();
    char byte = 0;
    EXPECT_EQ(pServed->ReadSome(&byte, 1, Infinite).bytes, 1u);
    EXPECT_EQ(byte, 'x');
}

/// The service manager does not make its sockets non-blocking, and the other server may take the client first.
TEST(PassedListenerTest, AServerThatLosesTheClientToAnotherStillHearsOfItsClose)
{
    const ServiceManager manager;
    TcpListener one(manager.Pass());
    TcpListener other(manager.Pass());
    auto first = std::async(std::launch::async, [&] { return one.Accept() != nullptr; });
    auto second = std::async(std::launch::async, [&] { return other.Accept() != nullptr; });
    TcpSocket client(1);
    client.Connect(manager.address.c_str(), 0, Infinite);
    while (first.wait_for(0s) != std::future_status::ready && second.wait_for(1ms) != std::future_status::ready)
    {
        // whichever is first
    }
    one.Close();
    other.Close();
    ASSERT_EQ(first.wait_for(10s), std::future_status::ready);
    ASSERT_EQ(second.wait_for(10s), std::future_status::ready);
    EXPECT_NE(first.get(), second.get());
}

}  // namespace
}  // namespace korlo::osa
