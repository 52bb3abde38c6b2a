// Servers that end and start again, under clients, at any moment.

#include <atomic>
#include <chrono>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support/LongTests.h"
#include "support/ServerDoors.h"

namespace korlo
{
namespace
{

using std::chrono::microseconds;
using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;
using Names = std::set<std::string>;

constexpr int Killed = 1000 + SIGKILL;

/// A server whose socket is alone in a folder, with a mode and, where the test may choose one, a group.
class ServerKillTest : public ServerDoors
{
protected:
    ServerKillTest() { EXPECT_EQ(::mkdir(_sockets.c_str(), 0700), 0); }

    Arguments Command() const
    {
        return Bare({"--listen", "unix:" + _socket, "--socket-mode", "0620", "--socket-group", std::to_string(_group)});
    }

    /// Tries to connect until the time is up, and looks at the file whenever that has worked.
    void ConnectUntil(Clock::time_point end) const
    {
        while (Clock::now() < end)
        {
            if (RawUnixSocket().Connect(_socket) == 0)
            {
                ExpectRights();
            }
            ::sched_yield();
        }
    }

    void ExpectRights() const
    {
        struct stat status = {};
        ASSERT_EQ(::stat(_socket.c_str(), &status), 0);
        EXPECT_EQ(status.st_mode & 07777u, 0620u);
        EXPECT_EQ(status.st_gid, _group);
    }

    const gid_t _group = MayBecomeOtherUsers() ? 41235 : ::getegid();
    const std::string _sockets = PathOf("sockets");
    const std::string _socket = _sockets + "/socket";
};

TEST_F(ServerKillTest, StartsAtItsSocketWheneverTheOneBeforeWasKilled)
{
    constexpr int longRounds = 1000;
    constexpr int fewestRounds = 3;
    const unsigned int seed = std::random_device()();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::minstd_rand random(seed);
    const Clock::time_point begin = Clock::now();
    microseconds start = milliseconds(50);
    for (int round = 0;
         AreTestsLong() ? round < longRounds : round < fewestRounds || Clock::now() - begin < milliseconds(1500);
         ++round)
    {
        {
            // Killed on its way up, or just there.
            ChildProcess server(Command());
            const auto longest = static_cast<int>(start.count() * 5 / 4);
            ConnectUntil(Clock::now() + microseconds(std::uniform_int_distribution(0, longest)(random)));
            server.Signal(SIGKILL);
            ASSERT_EQ(server.Wait(), Killed) << server.GetErrors();
        }
        const Clock::time_point started = Clock::now();
        ChildProcess server(Command());
        server.AwaitOutput("listening on unix:" + _socket + '\n');
        start = std::chrono::duration_cast<microseconds>(Clock::now() - started);
        ASSERT_EQ(RawClient("unix:" + _socket).Get("A"), "[A]\nk=1\n");
        ExpectRights();
        ASSERT_EQ(NamesIn(_sockets), Names{"socket"});
        server.Signal(round % 2 == 0 ? SIGKILL : SIGTERM);
        ASSERT_EQ(server.Wait(), round % 2 == 0 ? Killed : 0) << server.GetErrors();
        ASSERT_EQ(NamesIn(_sockets), round % 2 == 0 ? Names{"socket"} : Names{});
    }
}

/// Clients that ask once for each connection, and connect anew when the server has ended it.
///
/// Thread safety: all methods, from any thread.
class Callers
{
public:
    Callers(const std::string& address, int count) : _address(address), _count(count)
    {
        for (int i = 0; i < count; ++i)
        {
            _threads.emplace_back([this] { Call(); });
        }
    }
    Callers(const Callers&) = delete;
    Callers& operator=(const Callers&) = delete;

    /// Lets each end with its connection.
    ~Callers()
    {
        End();
        for (std::thread& thread : _threads)
        {
            thread.join();
        }
    }

    /// They connect no more.
    void End() { _areEnding = true; }

    /// True once each has been answered.
    bool AllWait() const
    {
        return Eventually([this] { return _waiting == _count; });
    }

    int CountRefused() const { return _refused; }
    int CountAnswers() const { return _answers; }

private:
    void Call()
    {
        while (!_areEnding)
        {
            try
            {
                RawClient client(_address);
                if (client.Get("A") == "[A]\nk=1\n")
                {
                    ++_answers;
                    ++_waiting;
                    client.MeetsTheEnd();
                    --_waiting;
                }
            }
            catch (const std::exception&)
            {
                ++_refused;
            }
        }
    }

    const std::string _address;
    const int _count;
    std::atomic<bool> _areEnding = false;
    std::atomic<int> _refused = 0;
    std::atomic<int> _answers = 0;
    std::atomic<int> _waiting = 0;
    std::vector<std::thread> _threads;  // last
};

class PassedSocketTest : public ServerDoors
{
};

TEST_F(PassedSocketTest, NoClientIsRefusedWhileTheServerBehindItRestarts)
{
    const int clients = AreTestsLong() ? 50 : 10;
    const int restarts = AreTestsLong() ? 100 : 5;
    const OwnedDescriptor passed(ListeningSocket(_path));
    const Arguments command = Passed({passed.Get()}, "korlo.socket");
    Callers callers(_address, clients);
    for (int round = 0; round <= restarts; ++round)
    {
        ChildProcess server(command);
        server.AwaitOutput("listening on " + _address + '\n');
        const bool isLast = round == restarts;
        if (isLast || round % 4 < 2)
        {
            EXPECT_TRUE(callers.AllWait());
        }
        if (isLast)
        {
            callers.End();
        }
        server.Signal(round % 2 == 0 ? SIGTERM : SIGKILL);
        EXPECT_EQ(server.Wait(), round % 2 == 0 ? 0 : Killed) << server.GetErrors();
    }
    EXPECT_EQ(callers.CountRefused(), 0);
    EXPECT_GE(callers.CountAnswers(), clients * (restarts / 4));
}

}  // namespace
}  // namespace korlo
