// Processes that share resources through a real server.

#include <algorithm>
#include <chrono>
#include <fstream>
#include <memory>
#include <optional>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>

#include "korlo/core/IniFile.h"
#include "korlo/osa/ServiceDirectory.h"
#include "korlo/osa/TcpListener.h"
#include "settings/KorloSettingsClient.h"
#include "settings/ResourceReserver.h"
#include "support/Documents.h"
#include "support/ServerProcess.h"
#include "support/TemporaryFolder.h"

namespace korlo::settings
{
namespace
{

using Words = std::vector<std::string>;
using Processes = std::vector<std::unique_ptr<ChildProcess>>;

/// Totals that differ, so that no sum fits another resource by chance.
const std::vector<std::pair<std::string, int>> Totals = {{"Bus", 10}, {"Lamp", 23}, {"Memory", 100}};

Words Resources()
{
    Words names;
    for (const auto& [name, total] : Totals)
    {
        names.push_back(name);
    }
    return names;
}

Words Consumers(int count)
{
    Words names;
    for (int number = 0; number < count; ++number)
    {
        names.push_back("consumer" + std::to_string(number));
    }
    return names;
}

/// The sum of what consumers hold of the resource.
int Held(const core::IniFile& settings, const std::string& resource)
{
    const std::string prefix = "Resources/" + resource + "/Consumers/";
    int sum = 0;
    for (const auto& [group, values] : settings)
    {
        sum += group.starts_with(prefix) ? settings.GetIntOrDefault(group, "CurrentlyUsed", 0) : 0;
    }
    return sum;
}

/// A server that holds a group for every resource and consumer.
class ResourceContentionTest : public testing::Test
{
protected:
    void Start(const Words& consumers)
    {
        core::IniFile defaults;
        for (const auto& [resource, total] : Totals)
        {
            defaults.SetInt("Resources/" + resource, "TotalAvailable", total);
            for (const std::string& consumer : consumers)
            {
                defaults.SetInt("Resources/" + resource + "/Consumers/" + consumer, "CurrentlyUsed", 0);
            }
        }
        const std::string path = _folder.PathOf("defaults.ini");
        std::ofstream(path) << TextOf(defaults);
        // The disk would be what they contend for.
        _server.emplace(Words{"--defaults", path, "--user", _folder.PathOf("user.ini"), "--save-delay", "100000"});
        _observer.emplace(_server->GetPort());
        osa::ServiceDirectory::Register("korlo-settings-server", "127.0.0.1", _server->GetPort());
    }

    void TearDown() override { osa::ServiceDirectory::Unregister("korlo-settings-server"); }

    static std::unique_ptr<ChildProcess> Run(unsigned short port, const std::string& consumer, const Words& words)
    {
        Words command;
        std::istringstream emulator(KORLO_EMULATOR);
        for (std::string word; emulator >> word;)
        {
            command.push_back(word);
        }
        command.insert(command.end(), {KORLO_RESOURCE_CONSUMER, std::to_string(port), consumer});
        command.insert(command.end(), words.begin(), words.end());
        return std::make_unique<ChildProcess>(command);
    }

    /// Processes that reserve and release: `amount` is "for" or "times" with a number.
    static Processes Contend(unsigned short port, const Words& consumers, Words amount, const Words& resources)
    {
        amount.insert(amount.end(), resources.begin(), resources.end());
        Processes processes;
        for (const std::string& consumer : consumers)
        {
            processes.push_back(Run(port, consumer, amount));
        }
        return processes;
    }

    core::IniFile Look()
    {
        core::IniFile settings;
        settings.LoadFromString(_observer->Get("Resources*"));
        return settings;
    }

    /// Looks at all resources at one moment. True when somebody holds something.
    bool Observe()
    {
        const core::IniFile settings = Look();
        bool isHeld = false;
        for (const auto& [resource, total] : Totals)
        {
            const int held = Held(settings, resource);
            EXPECT_LE(held, total) << resource;
            isHeld = isHeld || held > 0;
        }
        return isHeld;
    }

    /// Observes until the time is up. How often anything was held.
    int ObserveFor(std::chrono::milliseconds time)
    {
        const auto end = std::chrono::steady_clock::now() + time;
        int held = 0;
        while (std::chrono::steady_clock::now() < end && !HasFailure())
        {
            held += Observe() ? 1 : 0;
        }
        return held;
    }

    void ExpectAllReleased()
    {
        const core::IniFile settings = Look();
        for (const auto& [resource, total] : Totals)
        {
            EXPECT_EQ(Held(settings, resource), 0) << resource;
        }
    }

    TemporaryFolder _folder;
    std::optional<ServerProcess> _server;
    std::optional<RawClient> _observer;
};

/// Waits for processes that reserve and release. How many reservations all of them were granted.
int AwaitGranted(const Processes& processes)
{
    int granted = 0;
    for (const auto& pProcess : processes)
    {
        EXPECT_EQ(pProcess->Wait(), 0) << pProcess->GetErrors();
        std::istringstream report(pProcess->GetOutput());
        std::string word;
        int count = 0;
        EXPECT_TRUE(report >> word >> count) << report.str();
        granted += count;
    }
    return granted;
}

TEST_F(ResourceContentionTest, EightProcessesNeverHoldMoreThanTheTotals)
{
    constexpr std::chrono::milliseconds time = std::chrono::seconds(10);
    const Words consumers = Consumers(8);
    Start(consumers);
    const Processes processes =
        Contend(_server->GetPort(), consumers, {"for", std::to_string(time.count())}, Resources());
    EXPECT_GT(ObserveFor(time), 0) << "nothing was ever held";
    EXPECT_GT(AwaitGranted(processes), 0);
    ExpectAllReleased();
}

TEST_F(ResourceContentionTest, WhatAKilledProcessHeldStaysTakenUntilItsSuccessorSetsIt)
{
    Start({"audio", "video"});
    const auto pHolder = Run(_server->GetPort(), "video", {"hold", "Memory", "60"});
    pHolder->AwaitOutput("holding");
    pHolder->Signal(SIGKILL);
    pHolder->Wait();

    KorloSettingsClient client(KorloSettingsClient::SingleThreaded);
    ResourceReserver other(&client, "Memory", "audio");
    EXPECT_EQ(other.GetAvailableResources(), 40);
    EXPECT_FALSE(other.TrySetUsage(41));

    ResourceReserver successor(&client, "Memory", "video");
    EXPECT_EQ(successor.GetCurrentUsage(), 60) << "it finds what its predecessor held";
    EXPECT_EQ(successor.GetAvailableResources(), 100) << "and may use all of it";
    EXPECT_TRUE(successor.TrySetUsage(70));
    EXPECT_TRUE(successor.TrySetUsage(0));
    EXPECT_TRUE(other.TrySetUsage(100));
}

TEST_F(ResourceContentionTest, ProcessesKilledAtAnyMomentLeaveNoMoreTakenThanThereIs)
{
    const Words consumers = Consumers(8);
    Start(consumers);
    constexpr const char* forever = "600000";
    Processes processes = Contend(_server->GetPort(), consumers, {"for", forever}, Resources());
    std::mt19937 random(4711);
    for (const auto& pProcess : processes)
    {
        for (int moments = std::uniform_int_distribution<int>(1, 50)(random); moments > 0 && !HasFailure();)
        {
            moments -= Observe() ? 1 : 0;
        }
        pProcess->Signal(SIGKILL);
        pProcess->Wait();
    }
    Observe();
    const Processes successors = Contend(_server->GetPort(), consumers, {"times", "1"}, Resources());
    AwaitGranted(successors);
    ExpectAllReleased();
}

/// What stands between one process and the server: it lets readings pass, and holds each attempt to write back.
///
/// Thread safety: none of its own; the owner guards it.
class AttemptGate
{
public:
    AttemptGate(std::unique_ptr<osa::TcpSocket> pClient, unsigned short serverPort)
        : _pSocket(std::move(pClient)),
          _stream(_pSocket.get(), WaitMs),
          _server(serverPort)
    {
    }

    /// Returns when the process attempts to write. False when it has gone instead.
    bool AwaitAttempt()
    {
        for (std::string line; std::getline(_stream, line);)
        {
            if (line == "test-and-merge")
            {
                _expected = ReadBlock();
                _changes = ReadBlock();
                return true;
            }
            EXPECT_EQ(line, "get delimited");
            const std::string groups = ReadBlock();
            Answer("data\n" + _server.Get(groups.substr(0, groups.size() - 1)) + ".\n");
        }
        return false;
    }

    /// Carries out the attempt that was awaited. True when it succeeded.
    bool LetPass()
    {
        const bool isDone = _server.TestAndMerge(_expected, _changes);
        Answer(isDone ? "result\nok\n" : "result\nfailure\n");
        return isDone;
    }

private:
    static constexpr unsigned int WaitMs = 30'000;

    std::string ReadBlock()
    {
        std::string text;
        for (std::string line; std::getline(_stream, line) && line != ".";)
        {
            text += line + '\n';
        }
        return text;
    }

    void Answer(const std::string& text) { _stream.GetOstream() << text << std::flush; }

    const std::unique_ptr<osa::TcpSocket> _pSocket;
    osa::TcpSocketStream _stream;
    RawClient _server;
    std::string _expected;
    std::string _changes;
};

using Gates = std::vector<std::unique_ptr<AttemptGate>>;

/// Those whose process attempts to write; the others have ended.
std::vector<AttemptGate*> AwaitAttempts(const Gates& gates)
{
    std::vector<AttemptGate*> attempting;
    for (const auto& pGate : gates)
    {
        if (pGate->AwaitAttempt())
        {
            attempting.push_back(pGate.get());
        }
    }
    return attempting;
}

TEST_F(ResourceContentionTest, OneOfSixteenProcessesSucceedsInEveryRoundOfAttempts)
{
    // In a round every process has read and now attempts to write: the worst that chance could bring about each time.
    const Words consumers = Consumers(16);
    Start(consumers);
    osa::TcpListener listener("127.0.0.1", 0);
    const Processes processes = Contend(listener.GetPort(), consumers, {"times", "3"}, {"Memory"});
    Gates gates;
    while (gates.size() < consumers.size())
    {
        gates.push_back(std::make_unique<AttemptGate>(listener.Accept(), _server->GetPort()));
    }

    std::mt19937 random(4711);
    int rounds = 0;
    int contended = 0;
    for (std::vector<AttemptGate*> attempting; !(attempting = AwaitAttempts(gates)).empty(); ++rounds)
    {
        std::shuffle(attempting.begin(), attempting.end(), random);
        const auto successes =
            std::count_if(attempting.begin(), attempting.end(), [](AttemptGate* pGate) { return pGate->LetPass(); });
        ASSERT_GE(successes, 1) << "round " << rounds << " of " << attempting.size() << " attempts";
        contended += successes < static_cast<std::ptrdiff_t>(attempting.size()) ? 1 : 0;
        Observe();
    }
    EXPECT_GT(contended, 16) << "they hardly met";
    EXPECT_GT(AwaitGranted(processes), 0);
    ExpectAllReleased();
}

}  // namespace
}  // namespace korlo::settings
