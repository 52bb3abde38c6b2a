#include "client/KorloSettingsTcpConnection.h"

#include <utility>

#include "korlo/osa/Exception.h"

namespace korlo::settings::client
{
namespace
{

constexpr const char* ConnectFailure = "Failed to connect to korlo-settings-server";
constexpr unsigned int PauseMs = 1000;
constexpr unsigned int LastWordsMs = 1000;
constexpr unsigned int ConnectTimeoutMs = 10;  // the server is on this machine
constexpr unsigned short NoDelay = 1;

}  // namespace

KorloSettingsTcpConnection::KorloSettingsTcpConnection(std::string socketPath) : _socketPath(std::move(socketPath))
{
}

KorloSettingsTcpConnection::~KorloSettingsTcpConnection()
{
    KorloSettingsTcpConnection::CloseConnection();
}

void KorloSettingsTcpConnection::EnsureConnection(int retries)
{
    if (_pStream == nullptr)
    {
        ForgetStreams();  // those that CloseConnection left behind, which are gone
    }
    for (int attempt = 0; !IsReady() && attempt < retries && !StopRequested(); ++attempt)
    {
        CloseConnection();
        ForgetStreams();
        if (attempt > 0)
        {
            Pause(PauseMs);
        }
        if (!StopRequested())
        {
            TryToConnect();
        }
    }
    if (!IsReady())
    {
        _pLogger->Warning("%s", ConnectFailure);
        throw osa::Exception("%s", ConnectFailure);
    }
}

void KorloSettingsTcpConnection::TryToConnect()
{
    const ServerAddress server = FindServer(_socketPath);
    _pSocket = std::make_unique<osa::TcpSocket>(NoDelay);
    try
    {
        _pSocket->Connect(server.host.c_str(), server.port, ConnectTimeoutMs);
    }
    catch (const osa::Exception& exception)
    {
        _pSocket.reset();
        _pLogger->Warning("%s", ConnectFailure);
        _pLogger->Information("Retrying connection");
        LogReason(server, exception.what());
        return;
    }
    _warnedReason.clear();
    _pStream = std::make_unique<osa::TcpSocketStream>(_pSocket.get(), osa::Infinite);
    _pIn = _pStream.get();
    _pOut = &_pStream->GetOstream();
    SetBreaker([this](StopRequest::Urgency urgency) {
        urgency == StopRequest::AtOnce ? _pSocket->Close() : _pSocket->LimitWrites(LastWordsMs);
    });
}

/// Over TCP the reason is nearly always that the server is away. A socket that is there may refuse this client alone,
/// for good, and nothing else would say so: the exception has a fixed text.
void KorloSettingsTcpConnection::LogReason(const ServerAddress& server, const char* reason)
{
    if (!IsUnixSocket(server) || _warnedReason == reason)
    {
        _pLogger->Trace("%s", reason);
        return;
    }
    _pLogger->Warning("%s", reason);
    _warnedReason = reason;
}

void KorloSettingsTcpConnection::CloseConnection()
{
    SetBreaker({});
    _pStream.reset();
    _pSocket.reset();
}

}  // namespace korlo::settings::client
