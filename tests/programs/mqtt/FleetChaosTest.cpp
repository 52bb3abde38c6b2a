// A device and a fleet that both change settings at random while broker, settings server and bridge are killed in turn.
// In the end all agree.

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <exception>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <utility>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "TopicNames.h"
#include "korlo/osa/Thread.h"
#include "support/BridgeScene.h"
#include "support/LongTests.h"

namespace korlo
{
namespace
{

using Clock = std::chrono::steady_clock;
using Json = nlohmann::json;
using settings::mqtt::EncodeName;
using testing::Contains;
using namespace std::chrono_literals;

/// The state of each group, by its name as it stands in the topic.
using States = std::map<std::string, Json>;

/// What the fleet wants of a group.
struct Wanted
{
    int version = 0;
    Json state;
    std::string mode;
};

class FleetChaosTest : public BridgeScene
{
protected:
    // A broker that is killed comes back with something older.
    FleetChaosTest() : BridgeScene("allow_anonymous true\nautosave_on_changes true\nautosave_interval 3\n")
    {
        StartMissing();
        Fleet().CatchUp();
    }

    void RunFor(std::chrono::milliseconds duration)
    {
        const auto end = Clock::now() + duration;
        for (auto nextBlow = Clock::now(); Clock::now() < end;)
        {
            if (Clock::now() >= nextBlow)
            {
                HasAll() ? KillNext() : StartMissing();
                nextBlow = Clock::now() + std::chrono::milliseconds(Random(400));
            }
            Random(2) == 0 ? ChangeAtDevice() : ChangeInFleet();
            Pause(Random(20));
        }
        StartMissing();
    }

    void ExpectAgreement()
    {
        // The fleet says once more what it wants: a broker that was killed may have forgotten.
        for (const auto& [group, wanted] : _wanted)
        {
            Wish(EncodeName(group), wanted.state.dump(), static_cast<unsigned long>(wanted.version), wanted.mode);
        }
        core::IniFile settings;
        bool agree = false;
        for (const auto end = Clock::now() + 60s; !agree && Clock::now() < end;)
        {
            Fleet().LookOn(200ms);
            settings.Clear();
            Device().GetSettings(settings::GroupNameCollection{"*"}, settings);
            agree = IsAsWanted(settings) && StatesReported() == StatesOf(settings);
        }
        EXPECT_TRUE(agree) << "the broker holds " << Json(StatesReported()) << "\nthe device has "
                           << Json(StatesOf(settings));
        for (const auto& [locator, values] : _possible)
        {
            const auto& [group, key] = locator;
            EXPECT_THAT(values, Contains(settings.GetValueOrDefault(group, key))) << '[' << group << ']' << key;
        }
        const Json status = Json::parse(Fleet().Last(Status()));
        EXPECT_EQ(status.at("online"), true);
        EXPECT_EQ(status.at("settings"), true);
        EXPECT_GT(_blows, 3);
        EXPECT_GT(_changes, 0);
    }

private:
    unsigned int Random(std::size_t bound) { return static_cast<unsigned int>(_random() % bound); }

    void Pause(unsigned int durationMs)
    {
        if (_hasBroker)
        {
            Fleet().LookOn(std::chrono::milliseconds(durationMs));
        }
        else
        {
            osa::Thread::CurrentThread::Sleep(durationMs);
        }
    }

    bool HasAll() const { return _hasBroker && _pServer != nullptr && _pBridge != nullptr; }

    void KillNext()
    {
        switch (_blows++ % 3)
        {
        case 0:
            _pBridge->End(SIGKILL);
            _pBridge.reset();
            break;
        case 1:
            _pFleet.reset();
            _broker.End(SIGKILL);
            _hasBroker = false;
            break;
        default:
            EndServer(SIGKILL);
        }
    }

    void StartMissing()
    {
        if (!std::exchange(_hasBroker, true))
        {
            _broker.Start();
            Fleet().CatchUp();
        }
        if (_pServer == nullptr)
        {
            StartServer();
        }
        if (_pBridge == nullptr)
        {
            StartBridge();
        }
    }

    /// Of a change that fails nobody knows whether it was made.
    void ChangeAtDevice()
    {
        if (_pServer == nullptr)
        {
            return;
        }
        const std::string group = _groups[Random(_groups.size())];
        const bool isErased = group.starts_with("Device") && Random(4) == 0;
        const std::string value = isErased ? "" : "change " + std::to_string(++_changes);
        std::set<std::string>& possible = _possible[{group, "device"}];
        possible.insert(value);
        try
        {
            if (isErased)
            {
                Device().EraseGroups(settings::GroupNameCollection{group});
            }
            else
            {
                Set(group, "device", value);
            }
            possible = {value};
        }
        catch (const std::exception&)
        {
            _pClient.reset();
        }
    }

    /// Mostly a new wish, sometimes the last one again, sometimes one that is too old.
    void ChangeInFleet()
    {
        if (!_hasBroker)
        {
            return;
        }
        const bool replaces = Random(3) == 0;
        const std::string group = replaces ? "Replaced" : _groups[Random(2)];
        Wanted& wanted = _wanted[group];
        if (Random(4) > 0 || wanted.version == 0)
        {
            ++wanted.version;
            wanted.mode = replaces ? "replace" : "merge";
            wanted.state = {{"wish", "version " + std::to_string(wanted.version)}};
            if (replaces)
            {
                wanted.state["only in " + std::to_string(wanted.version)] = "x";
            }
        }
        const bool isTooOld = wanted.version > 1 && Random(4) == 0;
        const Json state = isTooOld ? Json{{"wish", "too old"}} : wanted.state;
        Fleet().Send(
            Topic(EncodeName(group), "desired"),
            WishPayload(state.dump(), static_cast<unsigned long>(wanted.version - (isTooOld ? 1 : 0)), wanted.mode),
            MqttClient::Retained);
    }

    bool IsAsWanted(const core::IniFile& settings) const
    {
        const States states = StatesOf(settings);
        return std::all_of(_wanted.begin(), _wanted.end(), [&](const auto& entry) {
            const auto& [group, wanted] = entry;
            const auto state = states.find(EncodeName(group));
            return settings.GetValueOrDefault("KorloSettings/Fleet", group) == std::to_string(wanted.version) &&
                   state != states.end() && state->second.value("wish", "") == wanted.state.at("wish") &&
                   (wanted.mode == "merge" || state->second == wanted.state);
        });
    }

    /// As the bridge should report them.
    static States StatesOf(const core::IniFile& settings)
    {
        States states;
        for (const auto& [name, keys] : settings)
        {
            if (std::string(name) == "KorloSettings/Fleet")
            {
                continue;
            }
            Json& state = states[EncodeName(name)] = Json::object();
            for (const auto& [key, value] : keys)
            {
                state[std::string(key)] = std::string(value);
            }
        }
        return states;
    }

    /// As the broker has told, since this client of it connected.
    States StatesReported()
    {
        const std::string begin = Topic("", "").substr(0, Topic("", "").size() - 1);
        const std::string end = "/reported";
        States states;
        for (const MqttClient::Message& message : Fleet().GetMessages())
        {
            if (!message.topic.starts_with(begin) || !message.topic.ends_with(end))
            {
                continue;
            }
            const std::string group =
                message.topic.substr(begin.size(), message.topic.size() - begin.size() - end.size());
            states.erase(group);
            if (!message.payload.empty())
            {
                states[group] = Json::parse(message.payload).at("state");
            }
        }
        return states;
    }

    const std::array<std::string, 5> _groups{"Both", "Both +#%/b", "Device 1", "Device/2", "Device"};
    const unsigned int _seed = std::random_device()();
    const testing::ScopedTrace _trace{__FILE__, __LINE__, "seed " + std::to_string(_seed)};
    std::mt19937 _random{_seed};
    bool _hasBroker = true;
    std::map<std::string, Wanted> _wanted;
    std::map<std::pair<std::string, std::string>, std::set<std::string>> _possible;  // values, of a group and a key
    int _blows = 0;
    int _changes = 0;
};

TEST_F(FleetChaosTest, AllAgreeAfterEachWasKilledInTurn)
{
    RunFor(AreTestsLong() ? 60s : 8s);
    ExpectAgreement();
}

}  // namespace
}  // namespace korlo
