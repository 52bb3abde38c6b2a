#include "client/KorloSettingsTcpConnection.h"

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
constexpr unsigned short PortOfHost = 0;  // the one that goes with the host's name

}  // namespace

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
    _pSocket = std::make_unique<osa::TcpSocket>(NoDelay);
    try
    {
        _pSocket->Connect(ServerHost, PortOfHost, ConnectTimeoutMs);
    }
    catch (const osa::Exception& exception)
    {
        _pSocket.reset();
        _pLogger->Warning("%s", ConnectFailure);
        _pLogger->Information("Retrying connection");
        _pLogger->Trace("%s", exception.what());
        return;
    }
    _pStream = std::make_unique<osa::TcpSocketStream>(_pSocket.get(), osa::Infinite);
    _pIn = _pStream.get();
    _pOut = &_pStream->GetOstream();
    SetBreaker([this](StopRequest::Urgency urgency) {
        urgency == StopRequest::AtOnce ? _pSocket->Close() : _pSocket->LimitWrites(LastWordsMs);
    });
}

void KorloSettingsTcpConnection::CloseConnection()
{
    SetBreaker({});
    _pStream.reset();
    _pSocket.reset();
}

}  // namespace korlo::settings::client
