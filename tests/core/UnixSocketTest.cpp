// Connections over Unix-domain sockets: finding them, and reading and writing as over TCP.

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <future>
#include <memory>
#include <string>
#include <vector>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "korlo/osa/Exception.h"
#include "korlo/osa/Mutex.h"
#include "korlo/osa/ServiceDirectory.h"
#include "korlo/osa/TcpSocket.h"
#include "korlo/osa/TcpSocketStream.h"
#include "support/Files.h"
#include "support/SocketBehaviour.h"
#include "support/TcpPair.h"
#include "support/TemporaryFolder.h"
#include "support/UnixSockets.h"

namespace korlo::osa
{
namespace
{

using namespace std::chrono_literals;
using testing::HasSubstr;

constexpr unsigned int LimitMs = 30'000;
constexpr unsigned int OtherUser = 41234;

/// A socket in a folder of its own whose queue is full as soon as one waits.
struct ShortListener
{
    ShortListener()
    {
        EXPECT_EQ(listening.Bind(path), 0);
        EXPECT_EQ(listening.Listen(0), 0);
        waiting.Connect(("unix:" + path).c_str(), 0, 0);
    }

    TemporaryFolder folder;
    const std::string path = folder.PathOf("socket");
    RawUnixSocket listening;
    TcpSocket waiting{1};
};

TEST(UnixSocketTest, ConnectsToAPathWhateverThePort)
{
    TemporaryFolder folder;
    TcpListener listener("unix:" + folder.PathOf("socket"), 0);
    for (const unsigned short port : {static_cast<unsigned short>(0), static_cast<unsigned short>(4711)})
    {
        TcpSocket client(1);
        EXPECT_EQ(MessageOf([&] { client.Connect(listener.GetAddress().c_str(), port, 0); }), "");
        EXPECT_EQ(client.GetPeerAddress(), listener.GetAddress());
        EXPECT_EQ(client.GetPeerIdentity(), nullptr);
        EXPECT_NE(listener.Accept(), nullptr);
    }
}

TEST(UnixSocketTest, ConnectsByTheDirectory)
{
    UnixPair pair;
    ServiceDirectory::Register("unix-socket-test", pair.address, 0);
    TcpSocket client(1);
    EXPECT_EQ(MessageOf([&] { client.Connect("unix-socket-test", 0, 10); }), "");
    EXPECT_EQ(client.GetPeerAddress(), pair.address);
    pair.listener.Close();
    TcpSocket late(1);
    EXPECT_THAT(MessageOf([&] { late.Connect("unix-socket-test", 0, 10); }),
                HasSubstr("Failed to connect to '" + pair.address + "': No such file or directory"));
    ServiceDirectory::Unregister("unix-socket-test");
}

TEST(UnixSocketTest, APathMayHaveAllBytesThatTheSystemAllows)
{
    TemporaryFolder folder;
    for (const std::size_t size : {107u, 108u})
    {
        const std::string path = folder.PathOf(std::string(size - folder.GetPath().size() - 1, 'x'));
        ASSERT_EQ(path.size(), size);
        TcpListener listener("unix:" + path, 0);
        EXPECT_EQ(listener.GetAddress(), "unix:" + path);
        TcpSocket client(1);
        EXPECT_EQ(MessageOf([&] { client.Connect(listener.GetAddress().c_str(), 0, 1000); }), "");
        EXPECT_EQ(client.GetPeerAddress(), "unix:" + path);
        EXPECT_EQ(listener.Accept()->GetPeerAddress(), "unix:" + path);
        listener.Close();
        EXPECT_FALSE(std::filesystem::exists(path));
    }
}

TEST(UnixSocketTest, SaysWhatIsWrongWithAPath)
{
    const std::string longPath(109, 'x');
    const struct
    {
        std::string path;
        const char* reason;
    } rows[] = {
        {longPath, "the path has 109 bytes, of which the system allows 108"},
        {"", "the path is empty"},
        {"@name", "a socket needs a file: the path holds no zero byte and begins with no '@'"},
        {std::string("\0name", 5), "a socket needs a file: the path holds no zero byte and begins with no '@'"},
        {std::string("/tmp/a\0b", 8), "a socket needs a file: the path holds no zero byte and begins with no '@'"},
    };
    for (const auto& row : rows)
    {
        const std::string name = "'" + std::string(("unix:" + row.path).c_str()) + "': " + row.reason;
        ServiceDirectory::Register("unix-socket-test", "unix:" + row.path, 0);
        TcpSocket client(1);
        EXPECT_EQ(MessageOf([&] { client.Connect("unix-socket-test", 0, 10); }), "Failed to connect to " + name);
        EXPECT_EQ(MessageOf([&] { TcpListener("unix:" + row.path, 0); }), "Failed to listen on " + name);
    }
    ServiceDirectory::Unregister("unix-socket-test");
}

TEST(UnixSocketTest, AClientThatTheModeKeepsOutIsToldSo)
{
    UnixPair pair;
    const std::string owner = "user " + std::to_string(geteuid()) + ", group " + std::to_string(getegid());
    const std::string self = "user " + std::to_string(MayBecomeOtherUsers() ? OtherUser : geteuid());
    const std::string failed = "Failed to connect to '" + pair.address + "': Permission denied: ";
    const auto expect = [&](const std::string& reason) {
        const auto connect = [&] { EXPECT_EQ(TryToConnect(pair.path), failed + reason); };
        MayBecomeOtherUsers() ? AsUser(OtherUser, OtherUser, {}, connect) : connect();
    };
    ASSERT_EQ(chmod(pair.folder.GetPath().c_str(), 0711), 0);
    ASSERT_EQ(chmod(pair.path.c_str(), 0060), 0);
    expect("the socket has mode 0060, " + owner + "; this process, " + self + ", must be one whom the mode lets write");
    ASSERT_EQ(chmod(pair.folder.GetPath().c_str(), 0600), 0);
    expect(self + " must be let into every folder of the path");
    chmod(pair.folder.GetPath().c_str(), 0700);
}

TEST(UnixSocketTest, TellsWhyNobodyAnswers)
{
    TemporaryFolder folder;
    const std::string path = folder.PathOf("socket");
    const std::string failed = "Failed to connect to 'unix:" + path + "': ";
    EXPECT_EQ(TryToConnect(path),
              failed + "No such file or directory: the server is not running, or listens elsewhere");
    LeaveSocket(path);
    EXPECT_EQ(TryToConnect(path), failed + "Connection refused: nobody listens on the socket; the server that made it "
                                           "must be started again");
    unlink(path.c_str());
    std::ofstream(path) << "text";
    EXPECT_EQ(TryToConnect(path), failed + "Connection refused: there is a file that is no socket");
    unlink(path.c_str());
    RawUnixSocket datagrams(SOCK_DGRAM);
    ASSERT_EQ(datagrams.Bind(path), 0);
    EXPECT_EQ(TryToConnect(path), failed + "Protocol wrong type for socket");
}

TEST(UnixSocketTest, AFailedConnectMayBeRepeated)
{
    TemporaryFolder folder;
    const std::string address = "unix:" + folder.PathOf("socket");
    TcpSocket client(1);
    EXPECT_NE(MessageOf([&] { client.Connect(address.c_str(), 0, 10); }), "");
    TcpListener listener(address, 0);
    EXPECT_EQ(MessageOf([&] { client.Connect(address.c_str(), 0, 10); }), "");
}

TEST(UnixSocketTest, AFullQueueIsWaitedForAndNotSpunOn)
{
    ShortListener listener;
    timespec before{};
    timespec after{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &before);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(TryToConnect(listener.path, 200),
              "Failed to connect to 'unix:" + listener.path + "': Connection timed out");
    const auto took = std::chrono::steady_clock::now() - start;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &after);
    const auto used =
        std::chrono::seconds(after.tv_sec - before.tv_sec) + std::chrono::nanoseconds(after.tv_nsec - before.tv_nsec);
    EXPECT_GE(took, 200ms);
    EXPECT_LT(used, 100ms);
    EXPECT_NE(TryToConnect(listener.path, 0), "");
}

TEST(UnixSocketTest, ConnectsAsSoonAsTheQueueHasRoom)
{
    ShortListener listener;
    auto connecting = std::async(std::launch::async, [&] { return TryToConnect(listener.path, Infinite); });
    EXPECT_EQ(connecting.wait_for(50ms), std::future_status::timeout);
    const OwnedDescriptor accepted(accept(listener.listening.Get(), nullptr, nullptr));
    ASSERT_EQ(connecting.wait_for(10s), std::future_status::ready);
    EXPECT_EQ(connecting.get(), "");
}

TEST(UnixSocketTest, ACloseFromAnotherThreadEndsAConnectThatWaits)
{
    ShortListener listener;
    TcpSocket client(1);
    auto connecting = std::async(std::launch::async, [&] {
        return MessageOf([&] { client.Connect(("unix:" + listener.path).c_str(), 0, Infinite); });
    });
    connecting.wait_for(5ms);
    client.Close();
    ASSERT_EQ(connecting.wait_for(10s), std::future_status::ready);
    EXPECT_THAT(connecting.get(), HasSubstr("Operation canceled"));
}

TEST(UnixSocketTest, MovesBytesBothWays)
{
    UnixPair pair;
    EXPECT_EQ(pair.client.WriteAll("ping", 4, Infinite).status, TcpSocket::Done);
    EXPECT_EQ(ReadBytes(*pair.pServer, 4), "ping");
    EXPECT_EQ(pair.pServer->WriteAll("po", 2, "ng", 2, 0).bytes, 4u);
    EXPECT_EQ(ReadBytes(pair.client, 4), "pong");
}

TEST(UnixSocketTest, AReadTimesOutWhenNothingComes)
{
    UnixPair pair;
    char byte = 0;
    EXPECT_EQ(pair.client.ReadSome(&byte, 1, 0).status, TcpSocket::TimedOut);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(pair.client.ReadSome(&byte, 1, 20).status, TcpSocket::TimedOut);
    EXPECT_GE(std::chrono::steady_clock::now() - start, 20ms);
}

TEST(UnixSocketTest, AWriteTimesOutWhenThePeerDoesNotRead)
{
    UnixPair pair;
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
    sent += result.bytes;
    pair.client.LimitWrites(10);
    EXPECT_EQ(pair.client.WriteAll(bytes.data(), bytes.size(), Infinite).status, TcpSocket::TimedOut);
    EXPECT_EQ(ReadBytes(*pair.pServer, sent), std::string(sent, 'x'));
}

TEST(UnixSocketTest, CompletesAWriteThatTheConnectionTakesInParts)
{
    ExpectThatALargeWriteIsCompleted<UnixPair>();
}

TEST(UnixSocketTest, ReportsTheEndOfTheStreamWhenThePeerCloses)
{
    ExpectThatTheEndComesBehindTheLastBytes<UnixPair>();
}

TEST(UnixSocketTest, AWriteToAPeerThatHasGoneFailsWithoutASignal)
{
    UnixPair pair;
    pair.pServer.reset();
    const TcpSocket::IoResult result = pair.client.WriteAll("x", 1, Infinite);
    EXPECT_EQ(result.status, TcpSocket::Failed);
    EXPECT_EQ(result.error, EPIPE);
}

TEST(UnixSocketTest, ACloseFromAnotherThreadWakesTheReader)
{
    ExpectThatACloseWakesTheReader<UnixPair>();
}

TEST(UnixSocketTest, ACloseFromAnotherThreadWakesTheWriter)
{
    ExpectThatACloseWakesTheWriter<UnixPair>(8 << 20);
}

TEST(UnixSocketTest, AnInterruptedReadGoesOn)
{
    ExpectThatAnInterruptedReadGoesOn<UnixPair>();
}

TEST(UnixSocketTest, WaitTellsAndWakeEndsItAsOverTcp)
{
    UnixPair pair;
    EXPECT_EQ(pair.client.Wait(true, false, 0), 0u);
    EXPECT_EQ(pair.client.Wait(true, true, 0), TcpSocket::Writable);
    pair.pServer->WriteAll("x", 1, LimitMs);
    EXPECT_EQ(pair.client.Wait(true, false, LimitMs), TcpSocket::Readable);
    EXPECT_EQ(ReadBytes(pair.client, 1), "x");
    auto waiting = std::async(std::launch::async, [&] { return pair.client.Wait(true, false, LimitMs); });
    pair.client.Wake();
    EXPECT_EQ(waiting.get(), TcpSocket::Woken);
    waiting = std::async(std::launch::async, [&] { return pair.client.Wait(true, false, LimitMs); });
    pair.client.Close();
    EXPECT_EQ(waiting.get(), TcpSocket::Readable | TcpSocket::Writable);
}

TEST(UnixSocketTest, CarriesStreamsBothWays)
{
    UnixPair pair;
    TcpSocketStream client(&pair.client, Infinite);
    TcpSocketStream server(pair.pServer.get(), Infinite);
    const std::string large(200000, 'x');
    client.GetOstream() << "get" << std::endl;
    std::string line;
    EXPECT_TRUE(std::getline(server, line));
    EXPECT_EQ(line, "get");
    auto writing = std::async(std::launch::async, [&] { server.GetOstream() << large << std::endl; });
    EXPECT_TRUE(std::getline(client, line));
    EXPECT_EQ(line, large);
}

TEST(UnixSocketTest, DoesNotPassToProgramsThatThisProcessStarts)
{
    UnixPair pair;
    int found = 0;
    for (int descriptor = 3; descriptor < 256; ++descriptor)
    {
        int domain = 0;
        socklen_t length = sizeof(domain);
        if (getsockopt(descriptor, SOL_SOCKET, SO_DOMAIN, &domain, &length) == 0 && domain == AF_UNIX)
        {
            ++found;
            EXPECT_NE(fcntl(descriptor, F_GETFD) & FD_CLOEXEC, 0) << descriptor;
        }
    }
    EXPECT_GE(found, 3);
}

std::size_t OpenDescriptors()
{
    std::size_t count = 0;
    for (int descriptor = 0; descriptor < 1024; ++descriptor)
    {
        count += fcntl(descriptor, F_GETFD) >= 0 ? 1 : 0;
    }
    return count;
}

TEST(UnixSocketTest, DescriptorsThatAPeerSendsAreClosed)
{
    TemporaryFolder folder;
    TcpListener listener("unix:" + folder.PathOf("socket"), 0);
    RawUnixSocket client;
    ASSERT_EQ(client.Connect(folder.PathOf("socket")), 0);
    const std::unique_ptr<TcpSocket> pServer = listener.Accept();
    constexpr std::size_t most = 253;  // that the system lets pass at once
    const OwnedDescriptor null(open("/dev/null", O_RDONLY | O_CLOEXEC));
    const std::size_t before = OpenDescriptors();
    for (int i = 0; i < 20; ++i)
    {
        EXPECT_TRUE(SendWithDescriptors(client.Get(), "d", std::vector<int>(most, null.Get())));
        EXPECT_EQ(ReadBytes(*pServer, 1), "d");
        EXPECT_EQ(OpenDescriptors(), before);
    }
    EXPECT_EQ(send(client.Get(), "x", 1, MSG_NOSIGNAL), 1);
    EXPECT_EQ(ReadBytes(*pServer, 1), "x");
}

}  // namespace
}  // namespace korlo::osa
