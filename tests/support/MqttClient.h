#pragma once
// Somebody else at the broker: the fleet, or who looks on.

#include <cctype>
#include <chrono>
#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include <mosquitto.h>
#include <mqtt_protocol.h>

namespace korlo
{

/// Subscribes to topics, keeps every message, and publishes. It reads from the broker only while it waits.
///
///     MqttClient fleet(broker.GetPort());
///     fleet.Publish("korlo/1/panel/group/A/desired", R"({"state":{"k":"1"},"version":1})", MqttClient::Retained);
///     fleet.Await("korlo/1/panel/group/A/desired/accepted");
///
/// Every wait has a limit of 30 seconds, and throws then.
///
/// Thread safety: none of its own; the owner guards it.
class MqttClient
{
public:
    enum Keeping
    {
        Passing,
        Retained
    };

    struct Message
    {
        std::string topic;
        std::string payload;
        bool isRetained;  // the broker held it
        std::chrono::steady_clock::time_point time;
    };

    /// What the connection takes beside the port.
    struct Access
    {
        std::string username;
        std::string password;
        std::string clientId;  // empty: any
    };

    explicit MqttClient(unsigned short port, const std::string& filter = "korlo/#", const Access& access = {})
    {
        mosquitto_lib_init();
        _pClient.reset(mosquitto_new(access.clientId.empty() ? nullptr : access.clientId.c_str(), true, this));
        mosquitto_int_option(_pClient.get(), MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5);
        mosquitto_int_option(_pClient.get(), MOSQ_OPT_TCP_NODELAY, 1);
        mosquitto_max_inflight_messages_set(_pClient.get(), 0);
        if (!access.username.empty())
        {
            mosquitto_username_pw_set(_pClient.get(), access.username.c_str(), access.password.c_str());
        }
        mosquitto_connect_v5_callback_set(_pClient.get(),
                                          [](mosquitto*, void* p, int code, int, const mosquitto_property*) {
                                              static_cast<MqttClient*>(p)->_accepted = code;
                                          });
        mosquitto_message_callback_set(_pClient.get(), [](mosquitto*, void* p, const mosquitto_message* pMessage) {
            static_cast<MqttClient*>(p)->Keep(*pMessage);
        });
        mosquitto_publish_v5_callback_set(_pClient.get(),
                                          [](mosquitto*, void* p, int id, int code, const mosquitto_property*) {
                                              static_cast<MqttClient*>(p)->_published[id] = code;
                                          });
        mosquitto_subscribe_callback_set(_pClient.get(), [](mosquitto*, void* p, int, int, const int*) {
            ++static_cast<MqttClient*>(p)->_subscriptions;
        });
        if (mosquitto_connect(_pClient.get(), "127.0.0.1", port, KeepaliveSeconds) != MOSQ_ERR_SUCCESS)
        {
            throw std::runtime_error("Failed to connect to the broker");
        }
        WaitUntil([this] { return _accepted.has_value(); }, "to be accepted");
        if (*_accepted != 0)
        {
            throw std::runtime_error("The broker refuses the test");
        }
        Subscribe(filter, 1);
        Subscribe(Fence, 1);
    }

    MqttClient(const MqttClient&) = delete;
    MqttClient& operator=(const MqttClient&) = delete;

    ~MqttClient()
    {
        mosquitto_disconnect(_pClient.get());
        _pClient.reset();
        mosquitto_lib_cleanup();
    }

    /// Returns when the broker has it, with its reason code.
    int Publish(const std::string& topic, const std::string& payload, Keeping keeping = Passing)
    {
        const int id = Send(topic, payload, keeping);
        WaitUntil([this, id] { return _published.contains(id); }, "for " + topic + " to be published");
        return _published[id];
    }

    /// The same for many at once; returns without waiting.
    int Send(const std::string& topic, const std::string& payload, Keeping keeping = Passing)
    {
        int id = 0;
        const int error = mosquitto_publish(_pClient.get(), &id, topic.c_str(), static_cast<int>(payload.size()),
                                            payload.data(), 1, keeping == Retained);
        if (error != MOSQ_ERR_SUCCESS)
        {
            throw std::runtime_error(std::string("Failed to publish: ") + mosquitto_strerror(error));
        }
        return id;
    }

    /// Waits until the last message of the topic is such, and returns it.
    std::string Await(
        const std::string& topic,
        const std::function<bool(const std::string&)>& isIt = [](const std::string&) { return true; })
    {
        WaitUntil([&] { return Has(topic) && isIt(_last[topic]); }, "for " + topic);
        return _last[topic];
    }

    /// Waits until the last message of the topic holds the text, and returns it.
    std::string Await(const std::string& topic, const std::string& text)
    {
        return Await(topic, [&text](const std::string& payload) { return payload.find(text) != std::string::npos; });
    }

    /// Waits until the topic's retained message is gone.
    void AwaitCleared(const std::string& topic)
    {
        Await(topic, [](const std::string& payload) { return payload.empty(); });
    }

    /// Returns when everything has come that the broker took before.
    void CatchUp()
    {
        const std::string mark = std::to_string(++_marks);
        Send(std::string(Fence), mark);
        WaitUntil([&] { return _last[Fence] == mark; }, "to catch up");
    }

    /// Reads for so long.
    void LookOn(std::chrono::milliseconds duration)
    {
        for (const auto until = Clock::now() + duration; Clock::now() < until;)
        {
            Loop();
        }
    }

    void WaitUntil(const std::function<bool()>& condition, const std::string& what)
    {
        constexpr std::chrono::seconds limit{30};
        for (const auto until = Clock::now() + limit; !condition();)
        {
            if (Clock::now() > until)
            {
                throw std::runtime_error("Waited in vain " + what + "; what came:" + GetTale());
            }
            Loop();
        }
    }

    bool Has(const std::string& topic) const { return _last.contains(topic); }
    std::string Last(const std::string& topic) const { return Has(topic) ? _last.at(topic) : ""; }
    const std::vector<Message>& GetMessages() const { return _messages; }

    /// All that came of one topic.
    std::vector<std::string> All(const std::string& topic) const
    {
        std::vector<std::string> payloads;
        for (const Message& message : _messages)
        {
            if (message.topic == topic)
            {
                payloads.push_back(message.payload);
            }
        }
        return payloads;
    }

    /// Forgets what came.
    void Forget()
    {
        _messages.clear();
        _last.clear();
    }

    void Subscribe(const std::string& filter, int quality)
    {
        const int expected = _subscriptions + 1;
        mosquitto_subscribe(_pClient.get(), nullptr, filter.c_str(), quality);
        WaitUntil([&] { return _subscriptions == expected; }, "to be subscribed");
    }

private:
    using Clock = std::chrono::steady_clock;
    static constexpr int KeepaliveSeconds = 600;  // tests pause it
    static constexpr const char* Fence = "fence";

    struct Destroyer
    {
        void operator()(mosquitto* pClient) const { mosquitto_destroy(pClient); }
    };

    void Loop()
    {
        constexpr int waitMs = 20;
        const int error = mosquitto_loop(_pClient.get(), waitMs, 1);
        if (error != MOSQ_ERR_SUCCESS)
        {
            throw std::runtime_error(std::string("The test lost the broker: ") + mosquitto_strerror(error));
        }
    }

    void Keep(const mosquitto_message& message)
    {
        const std::string payload(static_cast<const char*>(message.payload),
                                  static_cast<std::size_t>(message.payloadlen));
        _last[message.topic] = payload;
        if (std::string(message.topic) != Fence)
        {
            _messages.push_back({message.topic, payload, message.retain, Clock::now()});
        }
    }

    std::string GetTale() const
    {
        constexpr std::size_t mostBytes = 200;
        std::string tale;
        for (const Message& message : _messages)
        {
            tale += "\n  " + message.topic + ' ' + message.payload.substr(0, mostBytes);
        }
        return tale;
    }

    std::unique_ptr<mosquitto, Destroyer> _pClient;
    std::optional<int> _accepted;
    int _subscriptions = 0;
    unsigned int _marks = 0;
    std::map<int, int> _published;  // reason codes
    std::vector<Message> _messages;
    std::map<std::string, std::string> _last;
};

}  // namespace korlo
