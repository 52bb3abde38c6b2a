// What a fleet costs its broker: a mosquitto of its own, and as many devices as one likes in one process, each of which
// behaves towards the broker as the bridge of a device does.

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>
#include <sys/resource.h>

#include "Connection.h"
#include "korlo/core/IniFile.h"
#include "support/Mosquitto.h"
#include "support/ProcessFigures.h"

namespace korlo::fleet
{
namespace
{

using Clock = std::chrono::steady_clock;
using Json = nlohmann::json;
using namespace std::chrono_literals;

/// The groups of a device, each an object of its keys and values.
using Groups = std::map<std::string, Json>;

/// A group's name as it stands in a topic; the groups of the document need no more.
std::string InTopic(std::string name)
{
    for (std::size_t at = name.find('/'); at != std::string::npos; at = name.find('/', at))
    {
        name.replace(at, 1, "%2F");
    }
    return name;
}

Groups GroupsOf(const std::string& path)
{
    core::IniFile document;
    document.Load(path.c_str());
    Groups groups;
    for (const auto& [name, keys] : document)
    {
        Json& group = groups[InTopic(name)];
        for (const auto& [key, value] : keys)
        {
            group[std::string(key)] = std::string(value);
        }
    }
    return groups;
}

/// A device with its bridge: says that it is there, reports its groups where the broker does not hold them yet, and
/// takes over what is wanted.
///
/// Thread safety: none of its own; it belongs to the main thread.
class Device : public Connection
{
public:
    Device(const std::string& name, int port, const Groups& groups)
        : Connection(name, port),
          _topic("korlo/1/" + name),
          _groups(groups)
    {
        const std::string will = Status(false);
        Property delay(MQTT_PROP_WILL_DELAY_INTERVAL, 5);
        Check(mosquitto_will_set_v5(Client(), (_topic + "/status").c_str(), static_cast<int>(will.size()), will.data(),
                                    QoS, true, delay.Release()),
              "set the will");
    }

    const std::string& GetTopic() const { return _topic; }

    /// True once the broker holds what the device has.
    bool HasReported() const { return _hasReported && IsConnected(); }

    /// In order: the status first.
    void Leave()
    {
        Publish(_topic + "/status", Status(false), true);
        Disconnect();
    }

private:
    static std::string Status(bool isOnline)
    {
        return Json{{"online", isOnline},
                    {"session", "01234567-89ab-4cde-8f01-23456789abcd"},
                    {"settings", isOnline},
                    {"version", "1.1.0"}}
            .dump();
    }

    /// The broker sends what it holds of the device, and behind that the status, which comes last.
    void OnConnected() override
    {
        _held.clear();
        _hasReported = false;
        Subscribe(_topic + "/group/+/reported", 0);
        Subscribe(_topic + "/status", 0);
        Publish(_topic + "/status", Status(true), true);
    }

    void OnMessage(const std::string& topic, const std::string& payload) override
    {
        if (topic.ends_with("/status"))
        {
            CompareOnce(payload);
            return;
        }
        const std::size_t begin = _topic.size() + std::string("/group/").size();
        const std::string group = topic.substr(begin, topic.find('/', begin) - begin);
        if (topic.ends_with("/reported"))
        {
            _held[group] = payload;
            return;
        }
        const Json wish = Json::parse(payload);
        int& applied = _applied[group];
        if (wish.at("version") > applied)
        {
            applied = wish.at("version");
            _groups[group].update(wish.at("state"));
            Publish(topic + "/accepted", Json{{"version", applied}}.dump(), false);
            Report(group);
        }
    }

    void CompareOnce(const std::string& status)
    {
        if (_hasReported || status != Status(true))
        {
            return;
        }
        _hasReported = true;
        Unsubscribe(_topic + "/group/+/reported");
        Subscribe(_topic + "/group/+/desired", 0);
        Subscribe(_topic + "/group/+/desired", QoS, MQTT_SUB_OPT_SEND_RETAIN_NEVER);
        for (const auto& [group, state] : _groups)
        {
            const auto held = _held.find(group);
            if (held == _held.end() || Json::parse(held->second).at("state") != state)
            {
                Report(group);
            }
        }
    }

    void Report(const std::string& group)
    {
        const auto now = std::chrono::system_clock::now().time_since_epoch();
        const Json report{{"state", _groups[group]},
                          {"version", ++_reported[group]},
                          {"timestamp", std::chrono::duration_cast<std::chrono::milliseconds>(now).count()}};
        Publish(_topic + "/group/" + group + "/reported", report.dump(), true);
    }

    const std::string _topic;
    Groups _groups;
    std::map<std::string, std::string> _held;  // by the broker, of each group
    std::map<std::string, int> _applied;       // the last version of each group
    std::map<std::string, int> _reported;      // likewise
    bool _hasReported = false;                 // since it is connected
};

/// Follows the whole fleet, and has wishes.
///
/// Thread safety: none of its own; it belongs to the main thread.
class Operator : public Connection
{
public:
    explicit Operator(int port) : Connection("operator", port) {}

    std::size_t CountReports() const { return _reports; }
    std::size_t CountAcceptances() const { return _acceptances; }

    /// What the broker tells of itself; empty until it has.
    const std::map<std::string, double>& GetFigures() const { return _figures; }

    void AskForFigures()
    {
        _figures.clear();
        for (const std::string& name : FigureNames())
        {
            Subscribe(name);
        }
    }

    void StopFigures()
    {
        for (const std::string& name : FigureNames())
        {
            Unsubscribe(name);
        }
    }

    static std::vector<std::string> FigureNames()
    {
        const std::string folder = "$SYS/broker/";
        return {folder + "messages/received", folder + "messages/sent", folder + "bytes/received",
                folder + "bytes/sent"};
    }

private:
    void OnConnected() override
    {
        Subscribe("korlo/1/+/status");
        Subscribe("korlo/1/+/group/+/reported");
        Subscribe("korlo/1/+/group/+/desired/accepted");
    }

    void OnMessage(const std::string& topic, const std::string& payload) override
    {
        if (topic.starts_with('$'))
        {
            _figures[topic] = std::stod(payload);
        }
        _reports += topic.ends_with("/reported") ? 1 : 0;
        _acceptances += topic.ends_with("/accepted") ? 1 : 0;
    }

    std::size_t _reports = 0;
    std::size_t _acceptances = 0;
    std::map<std::string, double> _figures;
};

/// One run.
///
/// Thread safety: none of its own; it belongs to the main thread.
class Load
{
public:
    Load(std::size_t count, std::chrono::seconds rest, const Groups& groups) : _rest(rest), _groupCount(groups.size())
    {
        _connections.push_back(&_operator);
        for (std::size_t number = 0; number < count; ++number)
        {
            _devices.push_back(std::make_unique<Device>("device-" + std::to_string(number), _broker.GetPort(), groups));
            _connections.push_back(_devices.back().get());
        }
    }

    void Run()
    {
        _operator.Connect();
        Until("the operator is connected", [this] { return _operator.IsConnected(); });
        std::printf("%zu devices with %zu groups each; the broker has %zu KiB\n\n", _devices.size(), _groupCount,
                    _brokerProcess.GetResidentKiB());
        std::printf("%-26s %8s %10s %10s %10s %10s %8s %9s\n", "", "seconds", "packets in", "out", "KiB in", "KiB out",
                    "CPU s", "RSS KiB");
        _before = TakeFigures();
        Measure("all connect and report", [this] {
            ConnectAll();
            Until("all have reported", [this] { return _operator.CountReports() == _devices.size() * _groupCount; });
        });
        Measure("at rest", [this] { Serve(_rest); });
        Measure("a wish to all", [this] { WishToAll(); });
        Measure("all leave", [this] { LeaveAll(); });
        Measure("all come back", [this] { ConnectAll(); });
    }

private:
    struct Figures
    {
        std::map<std::string, double> broker;
        double processorSeconds;
    };

    void ConnectAll()
    {
        for (const auto& pDevice : _devices)
        {
            pDevice->Connect();
            ServeAll(_connections, 0ms);
        }
        Until("the broker holds what they have", [this] {
            return std::all_of(_devices.begin(), _devices.end(), [](const auto& p) { return p->HasReported(); });
        });
    }

    void LeaveAll()
    {
        for (const auto& pDevice : _devices)
        {
            pDevice->Leave();
            ServeAll(_connections, 0ms);
        }
        Until("they are gone", [this] {
            return std::none_of(_devices.begin(), _devices.end(), [](const auto& p) { return p->ToPoll().fd >= 0; });
        });
    }

    /// A message for each device: topics are a device's own.
    void WishToAll()
    {
        const std::size_t reports = _operator.CountReports();
        const std::string wish = R"({"state": {"ringVolume": "50"}, "version": 1})";
        for (const auto& pDevice : _devices)
        {
            _operator.Publish(pDevice->GetTopic() + "/group/Audio/desired", wish, true);
            ServeAll(_connections, 0ms);
        }
        Until("all have accepted and reported", [this, reports] {
            return _operator.CountAcceptances() == _devices.size() &&
                   _operator.CountReports() == reports + _devices.size();
        });
    }

    void Until(const std::string& what, const std::function<bool()>& condition)
    {
        for (const auto end = Clock::now() + 5min; !condition();)
        {
            if (Clock::now() > end)
            {
                throw std::runtime_error("Waited in vain until " + what);
            }
            ServeRound();
        }
    }

    void Serve(std::chrono::milliseconds duration)
    {
        for (const auto end = Clock::now() + duration; Clock::now() < end;)
        {
            ServeRound();
        }
    }

    void ServeRound()
    {
        ServeAll(_connections, 100ms);
        if (Clock::now() >= _nextTick)
        {
            for (Connection* pConnection : _connections)
            {
                pConnection->Tick();
            }
            _nextTick = Clock::now() + 1s;
        }
    }

    /// The broker's figures are those of its last second; two seconds later they hold everything until now.
    Figures TakeFigures()
    {
        const double processorSeconds = _brokerProcess.GetProcessorSeconds();
        Serve(2200ms);
        _operator.AskForFigures();
        Until("the broker tells its figures",
              [this] { return _operator.GetFigures().size() == Operator::FigureNames().size(); });
        _operator.StopFigures();
        return {_operator.GetFigures(), processorSeconds};
    }

    void Measure(const char* name, const std::function<void()>& work)
    {
        const auto begin = Clock::now();
        work();
        const std::chrono::duration<double> seconds = Clock::now() - begin;
        const Figures after = TakeFigures();
        const std::vector<std::string> names = Operator::FigureNames();
        const auto difference = [&](std::size_t index) {
            return after.broker.at(names[index]) - _before.broker.at(names[index]);
        };
        constexpr double kiB = 1024;
        std::printf("%-26s %8.1f %10.0f %10.0f %10.0f %10.0f %8.2f %9zu\n", name, seconds.count(), difference(0),
                    difference(1), difference(2) / kiB, difference(3) / kiB,
                    after.processorSeconds - _before.processorSeconds, _brokerProcess.GetResidentKiB());
        std::fflush(stdout);
        _before = after;
    }

    const std::chrono::seconds _rest;
    const std::size_t _groupCount;
    // What waits for whoever follows the whole fleet is not limited: by default it is 1000 messages.
    Mosquitto _broker{"allow_anonymous true\nmax_queued_messages 0\nsys_interval 1\n"};
    const ProcessFigures _brokerProcess{_broker.GetProcess()};
    Operator _operator{_broker.GetPort()};
    std::vector<std::unique_ptr<Device>> _devices;
    std::vector<Connection*> _connections;  // all of them, borrowed
    Clock::time_point _nextTick;
    Figures _before{};
};

/// A connection takes a descriptor here and one in the broker, which inherits the limit.
void AllowManyDescriptors()
{
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &limit);
}

}  // namespace
}  // namespace korlo::fleet

int main(int argc, char** argv)
{
    if (argc < 2 || argc > 3 || std::atoi(argv[1]) <= 0)
    {
        std::fprintf(stderr, "usage: %s DEVICES [SECONDS-AT-REST]\n", argv[0]);
        return 2;
    }
    korlo::fleet::AllowManyDescriptors();
    mosquitto_lib_init();
    int status = 0;
    try
    {
        const std::chrono::seconds rest(argc == 3 ? std::atoi(argv[2]) : 60);
        korlo::fleet::Load(static_cast<std::size_t>(std::atoi(argv[1])), rest,
                           korlo::fleet::GroupsOf(KORLO_FLEET_DOCUMENT))
            .Run();
    }
    catch (const std::exception& exception)
    {
        std::fprintf(stderr, "%s: %s\n", argv[0], exception.what());
        status = 1;
    }
    mosquitto_lib_cleanup();
    return status;
}
