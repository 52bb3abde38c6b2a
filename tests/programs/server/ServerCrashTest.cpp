// What survives when the server is killed, and what contending clients make of one value.

#include <csignal>
#include <filesystem>
#include <functional>
#include <future>
#include <random>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "korlo/core/IniFile.h"
#include "support/Files.h"
#include "support/ServerProcess.h"
#include "support/TemporaryFolder.h"

namespace korlo::daemon
{
namespace
{

/// By each way of saving.
class ServerCrashTest : public testing::TestWithParam<const char*>
{
protected:
    ServerProcess::Arguments Options() const { return {"--user", _user, "--save-by", GetParam()}; }

    TemporaryFolder _folder;
    const std::string _user = _folder.PathOf("user.ini");
};

/// Counts up by test-and-merge until the server is gone.
/// @return the last value that was answered "ok".
int CountUp(RawClient& client, int from)
{
    int value = from;
    const auto step = [&] {
        const std::string expected = value == 0 ? "" : "[Counter]\nvalue=" + std::to_string(value) + '\n';
        return client.TestAndMerge(expected, "[Counter]\nvalue=" + std::to_string(value + 1) + '\n');
    };
    while (step())
    {
        ++value;
    }
    return value;
}

TEST_P(ServerCrashTest, EveryChangeThatWasAnsweredOkIsThereAfterAKillAtAnyMoment)
{
    constexpr int kills = 50;
    unsigned int mostMs = 30;
    std::mt19937 random(20240229);
    int answered = 0;
    for (int kill = 0; kill < kills; ++kill)
    {
        SCOPED_TRACE(kill);
        ServerProcess server(Options());
        RawClient client(server.GetPort());
        core::IniFile stored;
        stored.LoadFromString(client.Get("Counter"));
        const int value = stored.GetIntOrDefault("Counter", "value", 0);
        // The change that was under way may have been made, but never be half there.
        ASSERT_GE(value, answered);
        ASSERT_LE(value, answered + 1);

        auto counting = std::async(std::launch::async, CountUp, std::ref(client), value);
        osa::Thread::CurrentThread::Sleep(static_cast<unsigned int>(random()) %
                                          mostMs);  // a random moment is the point
        EXPECT_EQ(server.End(SIGKILL), 1000 + SIGKILL);
        EXPECT_EQ(server.GetChild().GetErrors(), "");
        answered = counting.get();
        if (answered == 0)
        {
            mostMs *= 2;  // a machine that is slow, or busy
        }
        else
        {
            ASSERT_TRUE(core::IniFile::FindBadLines(_user.c_str()).empty());
            ASSERT_FALSE(std::filesystem::exists(_user + ".log.damaged"));
            ASSERT_FALSE(std::filesystem::exists(_user + ".log.foreign"));
        }
    }
    EXPECT_GT(answered, 0);
}

/// Adds one to a counter as often as told, reading and trying again whenever another was quicker.
void Increment(unsigned short port, int times)
{
    RawClient client(port);
    for (int done = 0; done < times;)
    {
        core::IniFile current;
        current.LoadFromString(client.Get("Counter"));
        const int value = current.GetIntOrDefault("Counter", "value", 0);
        done += client.TestAndMerge("[Counter]\nvalue=" + std::to_string(value) + '\n',
                                    "[Counter]\nvalue=" + std::to_string(value + 1) + '\n')
                    ? 1
                    : 0;
    }
}

TEST_P(ServerCrashTest, NoIncrementOfContendingClientsIsLost)
{
    constexpr int clients = 6;
    constexpr int times = 50;
    WriteFile(_user, "[Counter]\nvalue=0\n");
    ServerProcess server(Options());
    std::vector<pid_t> processes;
    for (int i = 0; i < clients / 2; ++i)
    {
        processes.push_back(::fork());
        if (processes.back() == 0)
        {
            Increment(server.GetPort(), times);
            ::_exit(0);
        }
    }
    std::vector<std::future<void>> threads;
    for (int i = 0; i < clients / 2; ++i)
    {
        threads.push_back(std::async(std::launch::async, Increment, server.GetPort(), times));
    }
    threads.clear();  // which waits for them
    for (const pid_t process : processes)
    {
        int status = -1;
        ::waitpid(process, &status, 0);
        EXPECT_EQ(status, 0);
    }
    EXPECT_EQ(RawClient(server.GetPort()).Get("*"), "[Counter]\nvalue=" + std::to_string(clients * times) + '\n');
}

INSTANTIATE_TEST_SUITE_P(EachWay, ServerCrashTest, testing::Values("replace", "append"),
                         [](const auto& way) { return std::string(way.param); });

}  // namespace
}  // namespace korlo::daemon
