#pragma once
// A broker, a settings server, a bridge between them, and the fleet.

#include <csignal>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "settings/KorloSettingsClient.h"
#include "support/ChildProcess.h"
#include "support/Files.h"
#include "support/Mosquitto.h"
#include "support/MqttClient.h"
#include "support/ServerProcess.h"
#include "support/TemporaryFolder.h"

namespace korlo
{

/// A korlo-settings-mqtt, killed when it goes.
///
/// Thread safety: none of its own; the owner guards it.
class BridgeProcess
{
public:
    explicit BridgeProcess(const std::string& configuration) : _child({KORLO_SETTINGS_MQTT, "--config", configuration})
    {
    }

    /// The exit status, or 1000 and the number of the signal.
    int End(int signal = SIGTERM)
    {
        _child.Signal(signal);
        return _child.Wait();
    }

    /// Waits until it has logged that.
    void AwaitLog(const std::string& text) { _child.AwaitErrors(text); }

    ChildProcess& GetChild() { return _child; }

private:
    ChildProcess _child;
};

/// The device is called "panel". Its server listens where the bridge finds it again after a restart. Each part is
/// started by the test that needs it.
///
/// Thread safety: none of its own; the owner guards it.
class BridgeScene : public testing::Test
{
protected:
    static constexpr const char* Everything = "[Report]\ngroups=*\n[Accept]\ngroups=*\n";

    explicit BridgeScene(const std::string& brokerOptions = "allow_anonymous true\n") : _broker(brokerOptions) {}

    std::string PathOf(const std::string& name) const { return _folder.PathOf(name); }

    /// Again with the same files, if it was started before.
    void StartServer(const std::string& defaults = "", const ServerProcess::Arguments& more = {})
    {
        if (!defaults.empty() || !ContentOf(PathOf("defaults.ini")))
        {
            WriteFile(PathOf("defaults.ini"), defaults);
        }
        _pClient.reset();
        ServerProcess::Arguments arguments{"--listen", Address(),         "--defaults", PathOf("defaults.ini"),
                                           "--user",   PathOf("user.ini")};
        arguments.insert(arguments.end(), more.begin(), more.end());
        _pServer = std::make_unique<ServerProcess>(arguments);
    }

    void EndServer(int signal = SIGTERM)
    {
        _pClient.reset();
        _pServer->End(signal);
        _pServer.reset();
    }

    /// What a program on the device does. Changes are made when its calls return.
    settings::KorloSettingsClient& Device()
    {
        if (!_pClient)
        {
            _pClient.reset(new settings::KorloSettingsClient(settings::KorloSettingsClient::Confirming(Address())));
        }
        return *_pClient;
    }

    std::string Value(const std::string& group, const std::string& key)
    {
        core::IniFile settings;
        Device().GetSettings(group, settings);
        return settings.GetValueOrDefault(group, key);
    }

    void Set(const std::string& group, const std::string& key, const std::string& value)
    {
        core::IniFile changes;
        changes.SetValue(group, key, value);
        Device().MergeSettings(changes);
    }

    /// @param rest of the configuration, behind [Broker] and its host and port.
    std::string Configuration(const std::string& rest, const std::string& broker = "") const
    {
        return "[Broker]\nhost=127.0.0.1\nport=" + std::to_string(_broker.GetPort()) + '\n' + broker +
               "[Device]\nname=panel\n[Settings]\naddress=" + Address() + '\n' + rest;
    }

    void StartBridge(const std::string& rest = Everything, const std::string& broker = "")
    {
        WriteFile(PathOf("mqtt.ini"), Configuration(rest, broker));
        _pBridge = std::make_unique<BridgeProcess>(PathOf("mqtt.ini"));
    }

    /// All that it is to report is reported, and it hears of wishes.
    void StartAll(const std::string& defaults, const std::string& rest = Everything)
    {
        StartServer(defaults);
        StartBridge(rest);
        AwaitBridge();
    }

    /// Until the bridge has done all that it does after connecting: behind a wish that makes no sense.
    void AwaitBridge()
    {
        Fleet().Await(Status(), [](const std::string& status) {
            return status.find("\"online\":true") != std::string::npos &&
                   status.find("\"settings\":true") != std::string::npos;
        });
        const std::string mark = "mark" + std::to_string(++_marks);
        const std::string answer = Topic(mark, "desired/rejected");
        Fleet().Publish(Topic(mark, "desired"), "mark", MqttClient::Retained);  // it may not listen yet
        Fleet().Await(answer);
        Fleet().Publish(Topic(mark, "desired"), "", MqttClient::Retained);
    }

    MqttClient& Fleet()
    {
        if (!_pFleet)
        {
            _pFleet = std::make_unique<MqttClient>(_broker.GetPort());
        }
        return *_pFleet;
    }

    std::string Address() const { return "unix:" + PathOf("socket"); }

    static std::string Status() { return "korlo/1/panel/status"; }
    static std::string Topic(const std::string& level, const std::string& end)
    {
        return "korlo/1/panel/group/" + level + '/' + end;
    }
    static std::string Reported(const std::string& level) { return Topic(level, "reported"); }

    /// Wishes without waiting for what becomes of it.
    void Wish(const std::string& level, const std::string& state, unsigned long version,
              const std::string& mode = "merge", MqttClient::Keeping keeping = MqttClient::Retained)
    {
        Fleet().Publish(Topic(level, "desired"), WishPayload(state, version, mode), keeping);
    }

    static std::string WishPayload(const std::string& state, unsigned long version, const std::string& mode = "merge")
    {
        return R"({"state":)" + state + R"(,"version":)" + std::to_string(version) + R"(,"mode":")" + mode + "\"}";
    }

    void AwaitAccepted(const std::string& level, unsigned long version)
    {
        Fleet().Await(Topic(level, "desired/accepted"), R"({"version":)" + std::to_string(version) + '}');
    }

    std::string AwaitRejected(const std::string& level, int code)
    {
        return Fleet().Await(Topic(level, "desired/rejected"), "\"code\":" + std::to_string(code));
    }

    const TemporaryFolder _folder;
    Mosquitto _broker;
    std::unique_ptr<ServerProcess> _pServer;
    std::unique_ptr<settings::KorloSettingsClient> _pClient;
    std::unique_ptr<BridgeProcess> _pBridge;
    std::unique_ptr<MqttClient> _pFleet;

private:
    unsigned int _marks = 0;
};

}  // namespace korlo
