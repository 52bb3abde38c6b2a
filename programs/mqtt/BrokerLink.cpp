#include "BrokerLink.h"

#include <array>
#include <cerrno>
#include <ctime>
#include <memory>

#include <mosquitto.h>
#include <mqtt_protocol.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>

#include "korlo/core/Logger.h"
#include "korlo/osa/Exception.h"

namespace korlo::settings::mqtt
{
namespace
{

constexpr int Quality = 1;  // at least once
constexpr std::uint32_t SessionSeconds = 300;
constexpr std::uint32_t WillDelaySeconds = 5;
constexpr std::uint32_t MostPacketBytes = 16 * 1024 * 1024;  // as much as the settings server takes at once
constexpr int FirstRefusal = 0x80;                           // reason codes from here on are failures

/// A list of properties of a message.
class Properties
{
public:
    Properties() = default;
    Properties(const Properties&) = delete;
    Properties& operator=(const Properties&) = delete;
    ~Properties() { mosquitto_property_free_all(&_pList); }

    Properties& Add(int identifier, std::uint32_t value)
    {
        if (mosquitto_property_add_int32(&_pList, identifier, value) != MOSQ_ERR_SUCCESS)
        {
            throw std::bad_alloc();
        }
        return *this;
    }

    mosquitto_property* Get() const { return _pList; }
    void Release() { _pList = nullptr; }

private:
    mosquitto_property* _pList = nullptr;
};

/// What the broker's reason code means to the person who reads the log.
std::string ReasonText(int code)
{
    std::string text = mosquitto_reason_string(code);
    switch (code)
    {
    case MQTT_RC_NOT_AUTHORIZED:
        return text + " (the broker's rules do not allow it to this user)";
    case MQTT_RC_CLIENTID_NOT_VALID:
        return text + " (look at client-id of [Broker])";
    case MQTT_RC_UNSUPPORTED_PROTOCOL_VERSION:
        return text + " (the broker does not speak MQTT 5)";
    case MQTT_RC_SESSION_TAKEN_OVER:
        return text + " (another client has connected with the same client-id)";
    default:
        return text;
    }
}

std::string ReasonIfRefused(int code)
{
    return code >= FirstRefusal ? ReasonText(code) : "";
}

std::string TimeNow()
{
    const std::time_t now = std::time(nullptr);
    std::tm parts{};
    ::gmtime_r(&now, &parts);
    std::array<char, 64> text{};
    std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S UTC", &parts);
    return text.data();
}

}  // namespace

/// What a connection by TLS takes. The library could make it from the files by itself, but keeps to itself what is
/// wrong with a certificate.
class BrokerLink::Tls
{
public:
    /// Reads the files.
    explicit Tls(const BrokerConfiguration& configuration) : _pContext(SSL_CTX_new(TLS_client_method()))
    {
        Check(_pContext != nullptr, "TLS");
        SSL_CTX* const pContext = _pContext.get();
        SSL_CTX_set_min_proto_version(pContext, TLS1_2_VERSION);
        SSL_CTX_set_mode(pContext, SSL_MODE_RELEASE_BUFFERS);
        SSL_CTX_set_verify(pContext, SSL_VERIFY_PEER, nullptr);
        SSL_CTX_set_cert_verify_callback(pContext, &Tls::Verify, this);
        Check(SSL_CTX_load_verify_locations(pContext, configuration.caFile.c_str(), nullptr) == 1, "ca-file");
        if (!configuration.certificateFile.empty())
        {
            Check(SSL_CTX_use_certificate_chain_file(pContext, configuration.certificateFile.c_str()) == 1,
                  "cert-file");
            Check(SSL_CTX_use_PrivateKey_file(pContext, configuration.keyFile.c_str(), SSL_FILETYPE_PEM) == 1,
                  "key-file");
        }
        X509_VERIFY_PARAM* const pParameters = SSL_CTX_get0_param(pContext);
        if (X509_VERIFY_PARAM_set1_ip_asc(pParameters, configuration.host.c_str()) != 1)
        {
            Check(X509_VERIFY_PARAM_set1_host(pParameters, configuration.host.c_str(), 0) == 1, "host");
        }
        ERR_clear_error();  // a name is no address
    }

    SSL_CTX* GetContext() const { return _pContext.get(); }

    /// Empty when certificates were not to blame.
    std::string GetFault() const
    {
        if (_error == X509_V_OK)
        {
            return "";
        }
        const std::string fault =
            std::string("the broker's certificate is refused: ") + X509_verify_cert_error_string(_error);
        if (_error != X509_V_ERR_CERT_NOT_YET_VALID && _error != X509_V_ERR_CERT_HAS_EXPIRED)
        {
            return fault + "; look at ca-file and host of [Broker]";
        }
        return fault + " by the clock of this device, which says " + TimeNow() +
               "; the clock may be wrong, or the broker needs a new certificate";
    }

private:
    static int Verify(X509_STORE_CTX* pStore, void* pArgument)
    {
        const int isValid = X509_verify_cert(pStore);
        static_cast<Tls*>(pArgument)->_error = isValid == 1 ? X509_V_OK : X509_STORE_CTX_get_error(pStore);
        return isValid;
    }

    static void Check(bool isDone, const char* key)
    {
        if (!isDone)
        {
            const char* const pReason = ERR_reason_error_string(ERR_get_error());
            ERR_clear_error();
            throw osa::Exception("%s of [Broker] cannot be used for TLS: %s", key,
                                 pReason != nullptr ? pReason : "memory ran out");
        }
    }

    struct Freer
    {
        void operator()(SSL_CTX* pContext) const { SSL_CTX_free(pContext); }
    };

    int _error = X509_V_OK;
    std::unique_ptr<SSL_CTX, Freer> _pContext;
};

class BrokerLink::Callbacks
{
public:
    static void Set(mosquitto* pClient)
    {
        mosquitto_connect_v5_callback_set(pClient, &Callbacks::OnConnect);
        mosquitto_disconnect_v5_callback_set(pClient, &Callbacks::OnDisconnect);
        mosquitto_message_v5_callback_set(pClient, &Callbacks::OnMessage);
        mosquitto_publish_v5_callback_set(pClient, &Callbacks::OnPublish);
        mosquitto_subscribe_v5_callback_set(pClient, &Callbacks::OnSubscribe);
        mosquitto_log_callback_set(pClient, &Callbacks::OnLog);
    }

private:
    static BrokerLink& LinkOf(void* pLink) { return *static_cast<BrokerLink*>(pLink); }

    static void OnConnect(mosquitto*, void* pLink, int code, int, const mosquitto_property*)
    {
        if (code != MQTT_RC_SUCCESS)
        {
            const bool isStranger = code == MQTT_RC_NOT_AUTHORIZED || code == MQTT_RC_BAD_USERNAME_OR_PASSWORD;
            LinkOf(pLink)._refusal =
                "the broker refuses the connection: " + (isStranger ? std::string(mosquitto_reason_string(code)) +
                                                                          " (look at username and password of [Broker])"
                                                                    : ReasonText(code));
            return;
        }
        LinkOf(pLink)._listener.OnAccepted();
    }

    static void OnDisconnect(mosquitto*, void* pLink, int code, const mosquitto_property*)
    {
        BrokerLink& link = LinkOf(pLink);
        if (code >= FirstRefusal && link._refusal.empty())
        {
            link._refusal = "the broker has ended the connection: " + ReasonText(code);
            link._wasTakenOver = code == MQTT_RC_SESSION_TAKEN_OVER;
        }
    }

    static void OnMessage(mosquitto*, void* pLink, const mosquitto_message* pMessage, const mosquitto_property*)
    {
        const std::string_view payload(static_cast<const char*>(pMessage->payload),
                                       static_cast<std::size_t>(pMessage->payloadlen));
        LinkOf(pLink)._listener.OnMessage(pMessage->topic, payload, pMessage->retain);
    }

    static void OnPublish(mosquitto*, void* pLink, int message, int code, const mosquitto_property*)
    {
        LinkOf(pLink)._listener.OnPublished(message, ReasonIfRefused(code));
    }

    static void OnSubscribe(mosquitto*, void* pLink, int message, int, const int* pCodes, const mosquitto_property*)
    {
        LinkOf(pLink)._listener.OnSubscribed(message, ReasonIfRefused(pCodes[0]));
    }

    static void OnLog(mosquitto*, void* pLink, int level, const char* pText)
    {
        if (level == MOSQ_LOG_ERR)
        {
            LinkOf(pLink)._libraryError = pText;
        }
    }
};

void BrokerLink::Destroyer::operator()(mosquitto* pClient) const
{
    mosquitto_destroy(pClient);
}

BrokerLink::BrokerLink(const BrokerConfiguration& configuration, IBrokerListener& listener)
    : _configuration(configuration),
      _listener(listener)
{
    mosquitto_lib_init();
}

BrokerLink::~BrokerLink()
{
    _pClient.reset();
    mosquitto_lib_cleanup();
}

void BrokerLink::Check(int error, const char* what)
{
    if (error != MOSQ_ERR_SUCCESS)
    {
        throw osa::Exception("%s: %s", what,
                             error == MOSQ_ERR_ERRNO ? osa::SystemReason(errno).c_str() : mosquitto_strerror(error));
    }
}

void BrokerLink::Configure(const std::string& willTopic, const std::string& will)
{
    mosquitto* const pClient = _pClient.get();
    Callbacks::Set(pClient);
    Check(mosquitto_int_option(pClient, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5), "MQTT 5");
    Check(mosquitto_int_option(pClient, MOSQ_OPT_TCP_NODELAY, 1), "TCP_NODELAY");
    if (_configuration.username)
    {
        Check(mosquitto_username_pw_set(pClient, _configuration.username->c_str(),
                                        _configuration.password ? _configuration.password->c_str() : nullptr),
              "username and password");
    }
    if (_pTls != nullptr)
    {
        constexpr int asItIs = 0;
        Check(mosquitto_int_option(pClient, MOSQ_OPT_SSL_CTX_WITH_DEFAULTS, asItIs), "TLS");
        Check(mosquitto_opts_set(pClient, MOSQ_OPT_SSL_CTX, _pTls->GetContext()), "TLS");
    }
    Properties properties;
    properties.Add(MQTT_PROP_WILL_DELAY_INTERVAL, WillDelaySeconds);
    Check(mosquitto_will_set_v5(pClient, willTopic.c_str(), static_cast<int>(will.size()), will.data(), Quality, true,
                                properties.Get()),
          "the will");
    properties.Release();
}

void BrokerLink::Connect(const std::string& willTopic, const std::string& will)
{
    constexpr bool keepsSession = false;  // no clean start: else a connection that comes back at once means a will
    _libraryError.clear();
    _refusal.clear();
    _wasTakenOver = false;
    _pTls = _configuration.caFile.empty() ? nullptr : std::make_unique<Tls>(_configuration);
    _pClient.reset(mosquitto_new(_configuration.clientId.c_str(), keepsSession, this));
    if (_pClient == nullptr)
    {
        throw osa::Exception("no client can be made: %s", osa::SystemReason(errno).c_str());
    }
    try
    {
        Configure(willTopic, will);
        Properties properties;
        properties.Add(MQTT_PROP_SESSION_EXPIRY_INTERVAL, SessionSeconds)
            .Add(MQTT_PROP_MAXIMUM_PACKET_SIZE, MostPacketBytes);
        const int error = mosquitto_connect_bind_v5(_pClient.get(), _configuration.host.c_str(), _configuration.port,
                                                    _configuration.keepaliveSeconds, nullptr, properties.Get());
        if (error != MOSQ_ERR_SUCCESS)
        {
            Lose(error);
        }
    }
    catch (...)
    {
        _pClient.reset();
        throw;
    }
}

int BrokerLink::GetDescriptor() const
{
    return _pClient != nullptr ? mosquitto_socket(_pClient.get()) : -1;
}

bool BrokerLink::WantsToWrite() const
{
    return _pClient != nullptr && mosquitto_want_write(_pClient.get());
}

void BrokerLink::Serve(bool isReadable)
{
    mosquitto* const pClient = _pClient.get();
    int error = isReadable ? mosquitto_loop_read(pClient, 1) : static_cast<int>(MOSQ_ERR_SUCCESS);
    if (error == MOSQ_ERR_SUCCESS && mosquitto_want_write(pClient))
    {
        error = mosquitto_loop_write(pClient, 1);
    }
    if (error == MOSQ_ERR_SUCCESS)
    {
        error = mosquitto_loop_misc(pClient);
    }
    if (error != MOSQ_ERR_SUCCESS || mosquitto_socket(pClient) < 0)
    {
        Lose(error);
    }
}

void BrokerLink::Lose(int error)
{
    const std::string reason = WhyLost(error);
    _pClient.reset();
    throw osa::Exception("%s", reason.c_str());
}

std::string BrokerLink::WhyLost(int error) const
{
    const int systemError = errno;
    if (!_refusal.empty())
    {
        return _refusal;
    }
    if (_pTls != nullptr && !_pTls->GetFault().empty())
    {
        return _pTls->GetFault();
    }
    switch (error)
    {
    case MOSQ_ERR_SUCCESS:
    case MOSQ_ERR_KEEPALIVE:
        return "the broker does not answer any more";
    case MOSQ_ERR_CONN_LOST:
        return "the connection was lost";
    case MOSQ_ERR_ERRNO:
        return osa::SystemReason(systemError);
    case MOSQ_ERR_EAI:
        return "the host's name is unknown, or cannot be looked up now";
    case MOSQ_ERR_TLS:
        return "TLS failed" + (_libraryError.empty() ? "" : ": " + _libraryError);
    default:
        return mosquitto_strerror(error);
    }
}

BrokerLink::Publication BrokerLink::Publish(const std::string& topic, const std::string& payload, bool isRetained)
{
    if (_pClient == nullptr)
    {
        return {Publication::Failed, 0, "there is no connection"};
    }
    int message = 0;
    const int error = mosquitto_publish_v5(_pClient.get(), &message, topic.c_str(), static_cast<int>(payload.size()),
                                           payload.data(), Quality, isRetained, nullptr);
    switch (error)
    {
    case MOSQ_ERR_SUCCESS:
        return {Publication::Sent, message, ""};
    case MOSQ_ERR_OVERSIZE_PACKET:
    case MOSQ_ERR_PAYLOAD_SIZE:
        return {Publication::TooLarge, 0, "it is larger than the broker takes"};
    case MOSQ_ERR_INVAL:
        return {Publication::TooLarge, 0, "its name is longer than a topic may be"};
    default:
        return {Publication::Failed, 0, mosquitto_strerror(error)};
    }
}

/// What the broker holds comes at most once since of that a broker may keep no more than a thousand messages waiting,
/// and drops the rest; those that come at most once do not wait.
int BrokerLink::Subscribe(const std::string& filter, Delivery delivery)
{
    int message = 0;
    mosquitto_subscribe_v5(_pClient.get(), &message, filter.c_str(), delivery == WhatIsHeld ? 0 : Quality,
                           delivery == WhatIsHeld ? MQTT_SUB_OPT_SEND_RETAIN_ALWAYS : MQTT_SUB_OPT_SEND_RETAIN_NEVER,
                           nullptr);
    return message;
}

void BrokerLink::Unsubscribe(const std::string& filter)
{
    mosquitto_unsubscribe(_pClient.get(), nullptr, filter.c_str());
}

void BrokerLink::Disconnect()
{
    if (_pClient == nullptr)
    {
        return;
    }
    Properties properties;
    properties.Add(MQTT_PROP_SESSION_EXPIRY_INTERVAL, 0);
    if (mosquitto_disconnect_v5(_pClient.get(), MQTT_RC_NORMAL_DISCONNECTION, properties.Get()) == MOSQ_ERR_SUCCESS &&
        mosquitto_want_write(_pClient.get()))
    {
        mosquitto_loop_write(_pClient.get(), 1);
    }
    _pClient.reset();
}

}  // namespace korlo::settings::mqtt
