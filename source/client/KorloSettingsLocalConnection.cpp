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
      _handler(&_env, _requests.GetIstream(), _responses.GetOstream()),
      _thread("LocalConnection", this, StackBytes, Priority)
{
    _thread.Run();
}

KorloSettingsLocalConnection::~KorloSettingsLocalConnection()
{
    SetBreaker({});
    common::RequestWriter(*_requests.GetOstream()).Quit();
    _requests.ClosePipe();  // for a handler that waits for the rest of a request which could not be written
    // The thread is destroyed first, which waits for it.
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

}  // namespace korlo::settings::client
