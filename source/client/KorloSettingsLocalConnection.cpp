#include "client/KorloSettingsLocalConnection.h"

#include "common/Protocol.h"
#include "korlo/osa/Exception.h"

namespace korlo::settings::client
{
namespace
{

constexpr unsigned int StackBytes = 32768;
constexpr signed char Priority = 0;
constexpr bool KeepsItsTransport = true;

}  // namespace

KorloSettingsLocalConnection::KorloSettingsLocalConnection()
    : KorloSettingsConnection(KeepsItsTransport),
      _pSettingsManager(std::make_unique<server::SettingsManager>()),
      _pSerializationManager(std::make_unique<server::SerializationManager>()),
      _env{_pSettingsManager.get(), _pSerializationManager.get()},
      _handler(&_env, _requests.GetIstream(), _responses.GetOstream()),
      _pThread(std::make_unique<osa::Thread>("LocalConnection", this, StackBytes, Priority))
{
    _pThread->Run();
}

KorloSettingsLocalConnection::~KorloSettingsLocalConnection()
{
    SetBreaker({});
    common::RequestWriter(*_requests.GetOstream()).Quit();
    _requests.ClosePipe();  // for a handler that waits for the rest of a request which could not be written
    _pThread.reset();       // joins
}

void KorloSettingsLocalConnection::EnsureConnection(int)
{
    std::istream* const pIn = _responses.GetIstream();
    std::ostream* const pOut = _requests.GetOstream();
    if (pIn->fail() || pOut->fail())
    {
        throw osa::Exception("KorloSettingsLocalConnection: Connection is in invalid state");
    }
    SetBreaker([this](StopRequest::Urgency urgency) {
        if (urgency == StopRequest::AtOnce)
        {
            _requests.ClosePipe();  // the handler meets the end, and closes the other one
        }
    });
    _pIn = pIn;
    _pOut = pOut;
}

void KorloSettingsLocalConnection::CloseConnection()
{
}

void KorloSettingsLocalConnection::Run()
{
    // Whatever ends the handler, the client must not wait for a response that never comes.
    struct PipeCloser
    {
        KorloSettingsLocalConnection& connection;

        ~PipeCloser()
        {
            connection._requests.ClosePipe();
            connection._responses.ClosePipe();
        }
    };
    const PipeCloser closer{*this};
    _handler.Run();
}

void KorloSettingsLocalConnection::Stop()
{
}

}  // namespace korlo::settings::client
