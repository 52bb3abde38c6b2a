#pragma once
// Many connections to a broker, served by one thread.

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <mosquitto.h>
#include <mqtt_protocol.h>
#include <poll.h>

namespace korlo::fleet
{

/// Throws when a call of the library has failed.
inline void Check(int result, const std::string& what)
{
    if (result != MOSQ_ERR_SUCCESS)
    {
        throw std::runtime_error("Failed to " + what + ": " + mosquitto_strerror(result));
    }
}

/// One property of a packet.
class Property
{
public:
    Property(int identifier, unsigned int value)
    {
        Check(mosquitto_property_add_int32(&_pFirst, identifier, value), "add a property");
    }

    Property(const Property&) = delete;
    Property& operator=(const Property&) = delete;
    ~Property() { mosquitto_property_free_all(&_pFirst); }

    const mosquitto_property* Get() const { return _pFirst; }

    /// The receiver frees it.
    mosquitto_property* Release() { return std::exchange(_pFirst, nullptr); }

private:
    mosquitto_property* _pFirst = nullptr;
};

/// A client of the broker, by MQTT 5, whose session outlives its connection. What it sends and receives moves while
/// Serve is called.
///
/// Thread safety: none of its own; the owner guards it.
class Connection
{
public:
    static constexpr int QoS = 1;

    Connection(const std::string& name, int port) : _port(port), _pClient(mosquitto_new(name.c_str(), false, this))
    {
        Check(_pClient == nullptr ? MOSQ_ERR_NOMEM : MOSQ_ERR_SUCCESS, "make a client");
        Check(mosquitto_int_option(Client(), MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5), "choose MQTT 5");
        mosquitto_connect_v5_callback_set(Client(), [](mosquitto*, void* pSelf, int reason, int, const auto*) {
            static_cast<Connection*>(pSelf)->Note([reason](Connection& self) { self.TakeAnswer(reason); });
        });
        mosquitto_publish_v5_callback_set(Client(), [](mosquitto*, void* pSelf, int id, int, const auto*) {
            static_cast<Connection*>(pSelf)->Note([id](Connection& self) { self.OnPublished(id); });
        });
        mosquitto_message_v5_callback_set(Client(), [](mosquitto*, void* pSelf, const auto* pMessage, const auto*) {
            std::string payload(static_cast<const char*>(pMessage->payload),
                                static_cast<std::size_t>(pMessage->payloadlen));
            static_cast<Connection*>(pSelf)->Note([topic = std::string(pMessage->topic), payload = std::move(payload)](
                                                      Connection& self) { self.OnMessage(topic, payload); });
        });
    }

    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;
    virtual ~Connection() = default;

    void Connect()
    {
        constexpr int keepAliveSeconds = 60;
        constexpr unsigned int sessionSeconds = 300;
        const Property expiry(MQTT_PROP_SESSION_EXPIRY_INTERVAL, sessionSeconds);
        Check(mosquitto_connect_bind_v5(Client(), "127.0.0.1", _port, keepAliveSeconds, nullptr, expiry.Get()),
              "connect to the broker");
    }

    void Disconnect() { Check(mosquitto_disconnect_v5(Client(), 0, nullptr), "disconnect"); }

    /// Returns the number by which OnPublished will know it.
    int Publish(const std::string& topic, const std::string& payload, bool isRetained)
    {
        int id = 0;
        Check(mosquitto_publish_v5(Client(), &id, topic.c_str(), static_cast<int>(payload.size()), payload.data(), QoS,
                                   isRetained, nullptr),
              "publish");
        return id;
    }

    /// @param options of MQTT 5: whether what is retained comes.
    void Subscribe(const std::string& filter, int quality = QoS, int options = MQTT_SUB_OPT_SEND_RETAIN_ALWAYS)
    {
        Check(mosquitto_subscribe_v5(Client(), nullptr, filter.c_str(), quality, options, nullptr), "subscribe");
    }

    void Unsubscribe(const std::string& filter)
    {
        Check(mosquitto_unsubscribe_v5(Client(), nullptr, filter.c_str(), nullptr), "unsubscribe");
    }

    bool IsConnected() const { return _isConnected; }

    /// What the socket waits for; without a connection nothing.
    pollfd ToPoll() const
    {
        const int writing = mosquitto_want_write(Client()) ? POLLOUT : 0;
        return {mosquitto_socket(Client()), static_cast<short>(POLLIN | writing), 0};
    }

    /// Moves what can be moved, by what poll has found.
    void Serve(short found)
    {
        int result = MOSQ_ERR_SUCCESS;
        if ((found & ~POLLOUT) != 0)
        {
            result = mosquitto_loop_read(Client(), 1);
        }
        if ((found & POLLOUT) != 0 && result == MOSQ_ERR_SUCCESS)
        {
            result = mosquitto_loop_write(Client(), 1);
        }
        if (mosquitto_socket(Client()) < 0)
        {
            _isConnected = false;
        }
        TellOfNoted();
        Check(result, "keep the connection to the broker");
    }

    /// To be called every second or so: sends pings.
    void Tick() { mosquitto_loop_misc(Client()); }

protected:
    mosquitto* Client() const { return _pClient.get(); }

    virtual void OnConnected() = 0;
    virtual void OnPublished(int /*id*/) {}
    virtual void OnMessage(const std::string& topic, const std::string& payload) = 0;

private:
    using Event = std::function<void(Connection&)>;

    /// Whoever hears of an event publishes and subscribes. In a callback of the library that would take its locks in an
    /// order that it takes the other way round elsewhere.
    void Note(Event event) { _noted.push_back(std::move(event)); }

    void TellOfNoted()
    {
        for (const Event& event : std::exchange(_noted, {}))
        {
            event(*this);
        }
    }

    struct Destroy
    {
        void operator()(mosquitto* pClient) const { mosquitto_destroy(pClient); }
    };

    void TakeAnswer(int reason)
    {
        _isConnected = reason == 0;  // a refusal is followed by the end of the connection, which Serve meets
        if (_isConnected)
        {
            OnConnected();
        }
    }

    const int _port;
    const std::unique_ptr<mosquitto, Destroy> _pClient;
    bool _isConnected = false;
    std::vector<Event> _noted;  // what the library has called for since Serve began
};

/// Serves those that are connected for at most so long, once something happens for one round.
inline void ServeAll(const std::vector<Connection*>& connections, std::chrono::milliseconds limit)
{
    std::vector<pollfd> polled;
    std::transform(connections.begin(), connections.end(), std::back_inserter(polled),
                   [](const Connection* pConnection) { return pConnection->ToPoll(); });
    ::poll(polled.data(), polled.size(), static_cast<int>(limit.count()));
    for (std::size_t index = 0; index < connections.size(); ++index)
    {
        if (polled[index].revents != 0)
        {
            connections[index]->Serve(polled[index].revents);
        }
    }
}

}  // namespace korlo::fleet
