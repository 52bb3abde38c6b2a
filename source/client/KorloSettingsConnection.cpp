#include "client/KorloSettingsConnection.h"

namespace korlo::settings::client
{
namespace
{

constexpr unsigned int LastWordsMs = 1000;

}  // namespace

KorloSettingsConnection::KorloSettingsConnection(bool keepsTransport)
    : _pLogger(core::Logger::GetLogger("KorloSettingsConnection")),
      _keepsTransport(keepsTransport),
      _stopSignal("stopConnecting", 1, 0)
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

void KorloSettingsConnection::RequestStop()
{
    if (!_stopRequested.exchange(true))
    {
        _stopSignal.Release();
    }
    const osa::MutexAutoLock lock(&_interruptMutex);
    if (_pInterruptible != nullptr)
    {
        _pInterruptible->LimitWrites(LastWordsMs);
    }
}

void KorloSettingsConnection::Interrupt()
{
    const osa::MutexAutoLock lock(&_interruptMutex);
    if (_pInterruptible != nullptr)
    {
        _pInterruptible->Close();
    }
}

void KorloSettingsConnection::SetInterruptible(osa::TcpSocket* pSocket)
{
    const osa::MutexAutoLock lock(&_interruptMutex);
    _pInterruptible = pSocket;
}

void KorloSettingsConnection::Pause(unsigned int durationMs)
{
    _stopSignal.TryLock(durationMs);
}

}  // namespace korlo::settings::client
