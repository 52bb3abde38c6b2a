// How quickly changes pass the bridge, and what it keeps when there are many.

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/BridgeScene.h"
#include "support/Growth.h"
#include "support/LongTests.h"

namespace korlo
{
namespace
{

using Clock = std::chrono::steady_clock;
using Milliseconds = std::chrono::duration<double, std::milli>;
using namespace std::chrono_literals;

// Whatever a sanitizer slows down, it does not slow down the broker by as much.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr double Patience = 10;
#else
constexpr double Patience = 1;
#endif

std::string GroupOf(int number)
{
    return "Group" + std::to_string(number);
}

class FleetSpeedTest : public BridgeScene
{
protected:
    // A broker that gathers what it sends, as it does by default, makes some messages wait 40 ms for the one before.
    FleetSpeedTest() : BridgeScene("allow_anonymous true\nset_tcp_nodelay true\n")
    {
        StartServer("", {"--save-delay", "1000"});  // the time that the disk takes is not the bridge's
        StartBridge();
        AwaitBridge();
    }

    /// For a group of that number, which is another one each time: none has to rest.
    using Action = std::function<void(int number, const std::string& value)>;

    /// What it takes from the action until a message comes that has the value: so long in a quarter of the cases, or
    /// less. What a busy machine adds to the others is not the bridge's.
    /// @param end of the topic that tells of it.
    Milliseconds TimeUntil(const std::string& end, const Action& action)
    {
        constexpr int samples = 16;  // no more than a client may publish that reads no answer, 20
        std::vector<Milliseconds> times;
        for (int sample = 0; sample < samples; ++sample)
        {
            const std::string value = "value " + std::to_string(++_values);
            Fleet().Forget();
            const auto begin = Clock::now();
            action(_values, value);
            Fleet().WaitUntil([&] { return HasTold(end, value); }, "for " + value);
            times.push_back(Fleet().GetMessages().back().time - begin);
        }
        std::sort(times.begin(), times.end());
        return times[samples / 4];
    }

    /// @param more than it takes to publish a message and to receive it.
    void ExpectReportedWithin(Milliseconds more, const Action& action)
    {
        Milliseconds bare{};
        Milliseconds reported{};
        constexpr int rounds = 5;
        for (int round = 0; round == 0 || (round < rounds && reported > bare + more); ++round)
        {
            // Of its own, and new each time: what it is told meanwhile it does not read.
            MqttClient publisher(_broker.GetPort(), "nothing");
            bare = TimeUntil("/bare", [&publisher](int number, const std::string& value) {
                publisher.Send(Topic(GroupOf(number), "bare"), value, MqttClient::Retained);
            });
            reported = TimeUntil("/reported", action);
            std::printf("published within %.2f ms, reported within %.2f ms\n", bare.count(), reported.count());
        }
        EXPECT_LE(reported.count(), (bare + more).count());
    }

    bool HasTold(const std::string& end, const std::string& value)
    {
        const std::vector<MqttClient::Message>& messages = Fleet().GetMessages();
        return std::any_of(messages.begin(), messages.end(), [&](const MqttClient::Message& message) {
            return message.topic.ends_with(end) && message.payload.find(value) != std::string::npos;
        });
    }

    std::size_t CountReports()
    {
        const std::vector<MqttClient::Message>& messages = Fleet().GetMessages();
        return static_cast<std::size_t>(std::count_if(messages.begin(), messages.end(), [](const auto& message) {
            return message.topic.ends_with("/reported");
        }));
    }

    ProcessFigures FiguresOfBridge() const { return ProcessFigures(_pBridge->GetChild().GetProcess()); }

    void ExpectLittleAtRest() const
    {
        EXPECT_TRUE(Eventually([this] { return FiguresOfBridge().GetResidentKiB() < GrowthKiB(3 * 1024); }));
        std::printf("at rest the bridge has %zu KiB\n", FiguresOfBridge().GetResidentKiB());
    }

    /// 5000 changes a second, if the machine can, in ten groups.
    void Flood(std::chrono::milliseconds duration)
    {
        constexpr int changesPerTurn = 50;
        constexpr auto turn = 10ms;
        RawClient client(_pServer->GetPort());
        const auto end = Clock::now() + duration;
        for (auto next = Clock::now() + turn; Clock::now() < end; next += turn)
        {
            std::string requests;
            for (int change = 0; change < changesPerTurn; ++change)
            {
                ++_values;
                requests +=
                    "merge nopersist\n[" + GroupOf(_values % Groups) + "]\nkey=" + std::to_string(_values) + "\n.\n";
            }
            client.Send(requests);
            const auto rest = std::chrono::duration_cast<std::chrono::milliseconds>(next - Clock::now());
            osa::Thread::CurrentThread::Sleep(static_cast<unsigned int>(std::max(rest, 0ms).count()));
        }
        client.Get("nothing");  // all is done
    }

    /// Until what the flood ended with is reported.
    void AwaitLast() { Fleet().Await(Reported(GroupOf(_values % Groups)), '"' + std::to_string(_values) + '"'); }

    static constexpr int Groups = 10;

    int _values = 0;
};

TEST_F(FleetSpeedTest, AChangeAtTheDeviceIsReportedAtOnce)
{
    RawClient client(_pServer->GetPort());
    ExpectReportedWithin(20ms * Patience, [&client](int number, const std::string& value) {
        client.Send("merge\n[" + GroupOf(number) + "]\nkey=" + value + "\n.\n");
    });
}

TEST_F(FleetSpeedTest, AWishIsAppliedAndReportedAtOnce)
{
    ExpectReportedWithin(30ms * Patience, [this](int number, const std::string& value) {
        Fleet().Send(Topic(GroupOf(number), "desired"), WishPayload(R"({"key":")" + value + "\"}", 1),
                     MqttClient::Retained);
    });
}

TEST_F(FleetSpeedTest, AtRestTheBridgeHasThreeMebibytesForSixHundredGroups)
{
    _pBridge->End();
    EndServer();
    std::string settings;
    for (int group = 0; group < 600; ++group)
    {
        settings += "[Subsystem." + GroupOf(group) + "]\n";
        for (int key = 0; key < 12; ++key)
        {
            settings += "setting.key." + std::to_string(key) + "=value-" + std::to_string(group) + "-abcdefghij\n";
        }
    }
    StartServer(settings);
    Fleet().Forget();
    StartBridge();
    AwaitBridge();
    Fleet().WaitUntil([this] { return CountReports() == 600; }, "for all reports");
    ExpectLittleAtRest();

    // What it needs again comes back, and goes again.
    Set("Subsystem.Group7", "key", "value");
    Fleet().Await(Reported("Subsystem.Group7"), "\"value\"");
    std::printf("at work the bridge has %zu KiB\n", FiguresOfBridge().GetResidentKiB());
    ExpectLittleAtRest();
}

TEST_F(FleetSpeedTest, AFloodOfChangesIsThinnedAndTakesNoMemory)
{
    const auto duration = AreTestsLong() ? 20'000ms : 1'500ms;
    Flood(duration);
    AwaitLast();
    const std::size_t before = FiguresOfBridge().GetAnonymousKiB();
    Fleet().Forget();
    const int valuesBefore = _values;
    const auto begin = Clock::now();
    Flood(duration);
    AwaitLast();
    const std::chrono::duration<double> seconds = Clock::now() - begin;
    const std::size_t after = FiguresOfBridge().GetAnonymousKiB();
    std::printf("%d changes and %zu reports in %.1f s; the bridge has %zu KiB, and had %zu\n", _values - valuesBefore,
                CountReports(), seconds.count(), after, before);
    EXPECT_LE(after, before + GrowthKiB(512));
    constexpr int mostPerSecond = 10;
    EXPECT_LE(static_cast<double>(CountReports()), Groups * (mostPerSecond * seconds.count() + 1));
}

TEST_F(FleetSpeedTest, AFloodWhileTheBrokerIsAwayTakesNoMemory)
{
    Flood(500ms);
    AwaitLast();
    _pFleet.reset();
    _broker.End(SIGKILL);
    const std::size_t before = FiguresOfBridge().GetAnonymousKiB();
    Flood(AreTestsLong() ? 20'000ms : 1'500ms);
    EXPECT_LE(FiguresOfBridge().GetAnonymousKiB(), before + GrowthKiB(512));

    // Once it is back, and has forgotten everything, each group comes once.
    _broker.Start();
    AwaitLast();
    Fleet().LookOn(200ms);
    EXPECT_EQ(CountReports(), std::size_t{Groups});
}

}  // namespace
}  // namespace korlo
