#pragma once
// One connection to the broker after the other.

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "BridgeConfiguration.h"

struct mosquitto;

namespace korlo::settings::mqtt
{

/// Hears of what the broker sends.
///
/// Thread safety: called on the thread that serves the link, within Serve. It may publish and subscribe, but neither
/// connect nor disconnect.
class IBrokerListener
{
public:
    virtual ~IBrokerListener() = default;

    /// The broker has accepted the connection.
    virtual void OnAccepted() = 0;

    /// @param isHeld the broker held it when it was asked to send what it holds; else somebody sends it now.
    virtual void OnMessage(std::string_view topic, std::string_view payload, bool isHeld) = 0;

    /// The broker has taken, or refused, what was published.
    /// @param reason empty: taken; else why not, in words.
    virtual void OnPublished(int message, const std::string& reason) = 0;

    /// The broker has answered to Subscribe.
    /// @param reason as above.
    virtual void OnSubscribed(int message, const std::string& reason) = 0;
};

/// Speaks MQTT 5. Everything happens on the thread of its owner: libmosquitto starts none, and nothing but connecting
/// waits. The owner polls the descriptor and calls Serve.
///
/// Of a connection nothing is kept for the next one: what the broker has not confirmed is the owner's to send again.
/// The broker keeps the session for some minutes, which is what its will waits for; with it, it keeps what it has not
/// delivered.
///
/// Thread safety: none of its own; the owner guards it.
class BrokerLink
{
public:
    /// How a Publish went.
    struct Publication
    {
        enum Fate
        {
            Sent,      // OnPublished follows, or the connection is lost
            TooLarge,  // for this broker, or for MQTT
            Failed
        };

        Fate fate = Failed;
        int message = 0;     // its number, when it is sent
        std::string reason;  // when it failed
    };

    /// @param listener borrowed; must outlive the link.
    BrokerLink(const BrokerConfiguration& configuration, IBrokerListener& listener);
    BrokerLink(const BrokerLink&) = delete;
    BrokerLink& operator=(const BrokerLink&) = delete;

    /// Without a word to the broker, which then publishes the will.
    ~BrokerLink();

    /// Waits until the broker's host has accepted the connection, as long as the system allows; a signal ends that.
    /// What the broker says to it comes later.
    /// @param will retained, 5 seconds after the connection is lost unless there is another one by then.
    /// @throws osa::Exception why not.
    void Connect(const std::string& willTopic, const std::string& will);

    /// From Connect until the connection is lost or closed.
    bool IsOpen() const { return _pClient != nullptr; }

    int GetDescriptor() const;
    bool WantsToWrite() const;

    /// Reads, writes and keeps the connection alive: when the descriptor is ready, and once a second.
    /// @throws osa::Exception why the connection is lost, or was not accepted; it is closed then.
    void Serve(bool isReadable);

    Publication Publish(const std::string& topic, const std::string& payload, bool isRetained);

    /// How the messages of a filter come.
    enum Delivery
    {
        WhatIsHeld,   // at once what the broker holds, and all that follows, each message at most once
        WhatFollows,  // at least once; takes the place of the former without a gap
    };

    /// Returns the number that OnSubscribed tells.
    int Subscribe(const std::string& filter, Delivery delivery);
    void Unsubscribe(const std::string& filter);

    /// Says goodbye, so that there will be no will, and closes.
    void Disconnect();

    /// True when the last connection was ended because another client has the same id.
    bool WasTakenOver() const { return _wasTakenOver; }

private:
    class Callbacks;  // libmosquitto's
    class Tls;
    struct Destroyer
    {
        void operator()(mosquitto* pClient) const;
    };

    void Configure(const std::string& willTopic, const std::string& will);
    [[noreturn]] void Lose(int error);
    std::string WhyLost(int error) const;
    static void Check(int error, const char* what);

    const BrokerConfiguration _configuration;
    IBrokerListener& _listener;
    std::unique_ptr<Tls> _pTls;  // of this connection; null: without
    std::unique_ptr<mosquitto, Destroyer> _pClient;
    std::string _libraryError;  // the last one that the library has logged
    std::string _refusal;       // what the broker said last, if it ended or refused the connection
    bool _wasTakenOver = false;
};

}  // namespace korlo::settings::mqtt
