// What a listener makes of the file of a Unix-domain socket.

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <future>
#include <latch>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "korlo/osa/Exception.h"
#include "korlo/osa/TcpListener.h"
#include "support/Files.h"
#include "support/SocketBehaviour.h"
#include "support/TemporaryFolder.h"
#include "support/UnixSockets.h"

namespace korlo::osa
{
namespace
{

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr unsigned int OtherUser = 41234;
constexpr unsigned int OtherGroup = 41235;

/// What becomes of a listener at the path.
std::string TryToListen(const std::string& path, const SocketFileRights& rights = {})
{
    return MessageOf([&] { TcpListener("unix:" + path, 0, rights); });
}

struct stat StatusOf(const std::string& path)
{
    struct stat status = {};
    EXPECT_EQ(lstat(path.c_str(), &status), 0) << path;
    return status;
}

TEST(UnixListenerTest, AcceptsAtAPathAndNamesItForBothEnds)
{
    UnixPair pair;
    EXPECT_EQ(pair.listener.GetAddress(), pair.address);
    EXPECT_EQ(pair.listener.GetPort(), 0);
    EXPECT_EQ(pair.client.GetPeerAddress(), pair.address);
    EXPECT_EQ(pair.pServer->GetPeerAddress(), pair.address);
    EXPECT_EQ(pair.pServer->WriteAll("hello", 5, Infinite).status, TcpSocket::Done);
    char byte = 0;
    EXPECT_EQ(pair.client.ReadSome(&byte, 1, Infinite).bytes, 1u);
}

TEST(UnixListenerTest, WhatAClientCallsItselfIsNotItsAddress)
{
    TemporaryFolder folder;
    TcpListener listener("unix:" + folder.PathOf("socket"), 0);
    RawUnixSocket client;
    ASSERT_EQ(client.Bind(folder.PathOf("name\nwith a line")), 0);
    ASSERT_EQ(client.Connect(folder.PathOf("socket")), 0);
    EXPECT_EQ(listener.Accept()->GetPeerAddress(), listener.GetAddress());
}

TEST(UnixListenerTest, GivesTheFileItsModeWhateverTheUmask)
{
    TemporaryFolder folder;
    const std::string path = folder.PathOf("socket");
    for (const mode_t mask : {0000u, 0777u})
    {
        const mode_t before = umask(mask);
        {
            TcpListener usual("unix:" + path, 0);
            EXPECT_EQ(StatusOf(path).st_mode & 07777u, 0660u);
        }
        TcpListener wide("unix:" + path, 0, SocketFileRights{0606, SocketFileRights::KeepGroup});
        EXPECT_EQ(StatusOf(path).st_mode & 07777u, 0606u);
        EXPECT_EQ(StatusOf(path).st_gid, getegid());
        umask(before);
    }
}

TEST(UnixListenerTest, GivesTheFileToAGroupOrMakesNone)
{
    TemporaryFolder folder;
    const std::string path = folder.PathOf("socket");
    const auto listen = [&] {
        TcpListener listener("unix:" + path, 0, SocketFileRights{0660, OtherGroup});
        EXPECT_EQ(StatusOf(path).st_gid, OtherGroup);
    };
    const std::string refused = "Failed to listen on 'unix:" + path + "': it cannot be given to group " +
                                std::to_string(OtherGroup) + ": Operation not permitted";
    if (!MayBecomeOtherUsers())
    {
        EXPECT_EQ(MessageOf(listen), refused);
        EXPECT_THAT(NamesIn(folder.GetPath()), IsEmpty());
        return;
    }
    EXPECT_EQ(MessageOf(listen), "");
    ASSERT_EQ(chmod(folder.GetPath().c_str(), 0777), 0);
    AsUser(OtherUser, OtherUser, {OtherGroup}, [&] { EXPECT_EQ(MessageOf(listen), ""); });
    AsUser(OtherUser, OtherUser, {}, [&] { EXPECT_EQ(MessageOf(listen), refused); });
    EXPECT_THAT(NamesIn(folder.GetPath()), IsEmpty());
}

/// As a user whom the mode keeps out, if there may be one; everybody else only finds the socket or does not.
TEST(UnixListenerTest, NobodyGetsInBeforeTheModeIsRight)
{
    TemporaryFolder folder;
    ASSERT_EQ(chmod(folder.GetPath().c_str(), 0711), 0);
    const std::string path = folder.PathOf("socket");
    std::atomic<bool> ended = false;
    int connected = 0;
    int tries = 0;
    std::thread intruder([&] {
        const auto intrude = [&] {
            for (; !ended || tries == 0; ++tries)
            {
                connected += RawUnixSocket().Connect(path) == 0 ? 1 : 0;
            }
        };
        MayBecomeOtherUsers() ? AsUser(OtherUser, OtherUser, {}, intrude) : intrude();
    });
    const mode_t before = umask(0);
    for (int i = 0; i < 300; ++i)
    {
        TcpListener listener("unix:" + path, 0, SocketFileRights{MayBecomeOtherUsers() ? 0600u : 0u});
    }
    umask(before);
    ended = true;
    intruder.join();
    EXPECT_GT(tries, 0);
    EXPECT_EQ(connected, 0);
}

TEST(UnixListenerTest, ReplacesTheSocketThatAKilledServerLeft)
{
    TemporaryFolder folder;
    const std::string path = folder.PathOf("socket");
    for (int i = 0; i < 3; ++i)
    {
        LeaveSocket(path);
        TcpListener listener("unix:" + path, 0);
        EXPECT_EQ(TryToConnect(path), "");
        EXPECT_NE(listener.Accept(), nullptr);
        EXPECT_THAT(NamesIn(folder.GetPath()), ElementsAre("socket"));
    }
}

TEST(UnixListenerTest, NeverReplacesTheSocketOfALiveServer)
{
    TemporaryFolder folder;
    const std::string path = folder.PathOf("socket");
    const std::string refused = "Failed to listen on 'unix:" + path + "': another server listens there";
    {
        TcpListener live("unix:" + path, 0);
        EXPECT_EQ(TryToListen(path), refused);
        EXPECT_NE(live.Accept(), nullptr);  // the look of the other
        EXPECT_EQ(TryToConnect(path), "");
    }
    {
        RawUnixSocket busy;
        ASSERT_EQ(busy.Bind(path), 0);
        ASSERT_EQ(busy.Listen(0), 0);
        RawUnixSocket waiting;
        ASSERT_EQ(waiting.Connect(path), 0);
        EXPECT_EQ(TryToListen(path), refused);
        unlink(path.c_str());
    }
    RawUnixSocket datagrams(SOCK_DGRAM);
    ASSERT_EQ(datagrams.Bind(path), 0);
    EXPECT_EQ(TryToListen(path), refused);
    EXPECT_TRUE(S_ISSOCK(StatusOf(path).st_mode));
}

TEST(UnixListenerTest, ReplacesWhatAServerLeftThatWasKilledBeforeItSetTheRights)
{
    TemporaryFolder folder;
    ASSERT_EQ(chmod(folder.GetPath().c_str(), 0777), 0);
    const std::string path = folder.PathOf("socket");
    const auto listen = [&] {
        LeaveSocket(path);
        ASSERT_EQ(chmod(path.c_str(), 0), 0);
        EXPECT_EQ(TryToListen(path), "");
    };
    listen();
    if (MayBecomeOtherUsers())
    {
        AsUser(OtherUser, OtherUser, {}, listen);
    }
}

TEST(UnixListenerTest, TheModeOfALiveServersSocketStays)
{
    TemporaryFolder folder;
    ASSERT_EQ(chmod(folder.GetPath().c_str(), 0777), 0);
    const std::string path = folder.PathOf("socket");
    const std::string failed = "Failed to listen on 'unix:" + path + "': ";
    const auto expect = [&](const std::string& reason) {
        EXPECT_EQ(TryToListen(path), failed + reason);
        EXPECT_EQ(StatusOf(path).st_mode & 07777u, 0060u);
    };
    TcpListener live("unix:" + path, 0, SocketFileRights{0060});
    expect("another server listens there");
    if (MayBecomeOtherUsers())
    {
        AsUser(OtherUser, OtherUser, {},
               [&] { expect("whether another server listens there cannot be told: Permission denied"); });
        live.Close();
        AsUser(OtherUser, OtherUser, {}, [&] {
            TcpListener own("unix:" + path, 0, SocketFileRights{0060});
            expect("another server listens there");
        });
    }
}

TEST(UnixListenerTest, NeverReplacesWhatIsNoSocket)
{
    TemporaryFolder folder;
    std::ofstream(folder.PathOf("file")) << "text";
    std::filesystem::create_directory(folder.PathOf("folder"));
    LeaveSocket(folder.PathOf("left"));
    std::filesystem::create_symlink("file", folder.PathOf("link to file"));
    std::filesystem::create_symlink("left", folder.PathOf("link to socket"));
    std::filesystem::create_symlink("nothing", folder.PathOf("link to nothing"));
    ASSERT_EQ(mkfifo(folder.PathOf("pipe").c_str(), 0600), 0);
    const std::size_t count = NamesIn(folder.GetPath()).size();
    const struct
    {
        const char* name;
        const char* kind;
    } rows[] = {
        {"file", "a regular file"},
        {"folder", "a folder"},
        {"link to file", "a symbolic link"},
        {"link to socket", "a symbolic link"},
        {"link to nothing", "a symbolic link"},
        {"pipe", "a device or pipe"},
    };
    for (const auto& row : rows)
    {
        const std::string path = folder.PathOf(row.name);
        const auto inode = StatusOf(path).st_ino;
        EXPECT_EQ(TryToListen(path), "Failed to listen on 'unix:" + path + "': there is " + row.kind +
                                         ", which stays; remove it, or choose another path");
        EXPECT_EQ(StatusOf(path).st_ino, inode);
    }
    EXPECT_EQ(NamesIn(folder.GetPath()).size(), count);
}

TEST(UnixListenerTest, NamesThePathAndTheReasonOfAFolderThatWillNotDo)
{
    TemporaryFolder folder;
    EXPECT_THAT(
        TryToListen(folder.PathOf("none/socket")),
        AllOf(HasSubstr("'unix:" + folder.PathOf("none/socket") + "'"), HasSubstr("No such file or directory")));
    std::ofstream(folder.PathOf("file")) << "text";
    EXPECT_THAT(TryToListen(folder.PathOf("file/socket")), HasSubstr("Not a directory"));
    EXPECT_THAT(TryToListen(folder.GetPath() + "/"), HasSubstr("there is a folder"));
    ASSERT_EQ(chmod(folder.GetPath().c_str(), 0555), 0);
    const auto listen = [&] {
        EXPECT_THAT(TryToListen(folder.PathOf("socket")),
                    AllOf(HasSubstr(folder.PathOf("socket")), HasSubstr("Permission denied")));
    };
    MayBecomeOtherUsers() ? AsUser(OtherUser, OtherUser, {}, listen) : listen();
    chmod(folder.GetPath().c_str(), 0755);
    EXPECT_THAT(NamesIn(folder.GetPath()), ElementsAre("file"));
}

TEST(UnixListenerTest, RemovesItsFileWhenItClosesAndWhenItIsDestroyed)
{
    TemporaryFolder folder;
    const std::string path = folder.PathOf("socket");
    {
        TcpListener listener("unix:" + path, 0);
        EXPECT_THAT(NamesIn(folder.GetPath()), ElementsAre("socket"));
        listener.Close();
        EXPECT_THAT(NamesIn(folder.GetPath()), IsEmpty());
        TcpListener next("unix:" + path, 0);
        listener.Close();
        EXPECT_THAT(NamesIn(folder.GetPath()), ElementsAre("socket"));
    }
    EXPECT_THAT(NamesIn(folder.GetPath()), IsEmpty());
}

TEST(UnixListenerTest, LeavesAFileThatIsNoLongerItsOwn)
{
    TemporaryFolder folder;
    const std::string path = folder.PathOf("socket");
    {
        TcpListener listener("unix:" + path, 0);
        unlink(path.c_str());
        TcpListener other("unix:" + path, 0);
        listener.Close();
        EXPECT_EQ(TryToConnect(path), "");
        unlink(path.c_str());
        std::ofstream(path) << "text";
    }
    EXPECT_TRUE(S_ISREG(StatusOf(path).st_mode));
}

TEST(UnixListenerTest, OfServersThatStartAtOnceOneWins)
{
    TemporaryFolder folder;
    const std::string path = folder.PathOf("socket");
    constexpr int servers = 4;
    for (int round = 0; round < 200; ++round)
    {
        LeaveSocket(path);
        std::latch ready(servers);
        std::vector<std::future<std::unique_ptr<TcpListener>>> starts;
        for (int i = 0; i < servers; ++i)
        {
            starts.push_back(std::async(std::launch::async, [&] {
                std::unique_ptr<TcpListener> pListener;
                ready.arrive_and_wait();
                const std::string refused =
                    MessageOf([&] { pListener = std::make_unique<TcpListener>("unix:" + path, 0); });
                EXPECT_TRUE(pListener != nullptr || refused.ends_with("another server listens there")) << refused;
                return pListener;
            }));
        }
        std::vector<std::unique_ptr<TcpListener>> winners;
        for (auto& start : starts)
        {
            if (std::unique_ptr<TcpListener> pListener = start.get())
            {
                winners.push_back(std::move(pListener));
            }
        }
        ASSERT_EQ(winners.size(), 1u);
        EXPECT_EQ(TryToConnect(path), "");
        EXPECT_THAT(NamesIn(folder.GetPath()), ElementsAre("socket"));
    }
}

TEST(UnixListenerTest, TakesAndRemovesTheLockThatAKilledServerLeft)
{
    TemporaryFolder folder;
    LeaveSocket(folder.PathOf("socket"));
    std::ofstream(folder.PathOf("socket.lock")).close();
    TcpListener listener("unix:" + folder.PathOf("socket"), 0);
    EXPECT_THAT(NamesIn(folder.GetPath()), ElementsAre("socket"));
}

TEST(UnixListenerTest, WaitsForTheServerThatIsStarting)
{
    TemporaryFolder folder;
    const std::string path = folder.PathOf("socket");
    OwnedDescriptor lock(open((path + ".lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    ASSERT_EQ(flock(lock.Get(), LOCK_EX), 0);
    auto starting = std::async(std::launch::async, [&] { return TryToListen(path); });
    EXPECT_EQ(starting.wait_for(30ms), std::future_status::timeout);
    lock.Close();
    ASSERT_EQ(starting.wait_for(10s), std::future_status::ready);
    EXPECT_EQ(starting.get(), "");
}

TEST(UnixListenerTest, AFileWithBytesInThePlaceOfTheLockStays)
{
    TemporaryFolder folder;
    const std::string path = folder.PathOf("socket");
    std::ofstream(path + ".lock") << "text";
    EXPECT_EQ(TryToListen(path),
              "Failed to listen on 'unix:" + path + "': '" + path + ".lock' is in the way: it is no empty file");
    EXPECT_THAT(NamesIn(folder.GetPath()), ElementsAre("socket.lock"));
}

TEST(UnixListenerTest, ACloseWakesEveryThreadInAccept)
{
    TemporaryFolder folder;
    TcpListener listener("unix:" + folder.PathOf("socket"), 0);
    ExpectThatACloseWakesEveryAccept(listener);
}

TEST(UnixListenerTest, ACloseEndsTheConnectionsThatNobodyAccepted)
{
    TemporaryFolder folder;
    TcpListener listener("unix:" + folder.PathOf("socket"), 0);
    TcpSocket first(1);
    TcpSocket second(1);
    first.Connect(listener.GetAddress().c_str(), 0, Infinite);
    second.Connect(listener.GetAddress().c_str(), 0, Infinite);
    listener.Close();
    char byte = 0;
    EXPECT_EQ(first.ReadSome(&byte, 1, 10000).status, TcpSocket::EndOfStream);
    EXPECT_EQ(second.ReadSome(&byte, 1, 10000).status, TcpSocket::EndOfStream);
    EXPECT_EQ(listener.Accept(), nullptr);
}

}  // namespace
}  // namespace korlo::osa
