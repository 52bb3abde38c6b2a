#include "client/KorloSettingsConnection.h"

#include <utility>

#include "korlo/osa/Thread.h"

namespace korlo::settings::client
{

KorloSettingsConnection::KorloSettingsConnection(bool keepsTransport)
    : _pLogger(core::Logger::GetLogger("KorloSettingsConnection")),
      _keepsTransport(keepsTransport)
{
}

KorloSettingsConnection::~KorloSettingsConnection()
{
    _pLogger = nullptr;
    ForgetStreams();
}

bool KorloSettingsConnection::IsReady() const
{
    return _pIn != nullptr && _pOut != nullptr && !_pIn->fail() && !_pOut->fail();
}

void KorloSettingsConnection::ForgetStreams()
{
    _pIn = nullptr;
    _pOut = nullptr;
}

void KorloSettingsConnection::Pause(unsigned int durationMs)
{
    _pStopRequest != nullptr ? _pStopRequest->Pause(durationMs) : osa::Thread::CurrentThread::Sleep(durationMs);
}

void KorloSettingsConnection::SetBreaker(StopRequest::Breaker breaker)
{
    if (_pStopRequest != nullptr)
    {
        _pStopRequest->SetBreaker(std::move(breaker));
    }
}

}  // namespace korlo::settings::client
