#include "client/KorloSettingsClientImpl.h"

#include <utility>

namespace korlo::settings::client
{

KorloSettingsClientImpl::KorloSettingsClientImpl(bool isConnected)
    : _pLogger(core::Logger::GetLogger("KorloSettings")),
      _isConnected(isConnected)
{
}

KorloSettingsClientImpl::~KorloSettingsClientImpl()
{
    _pLogger = nullptr;
}

void KorloSettingsClientImpl::UnSubscribe(IChangeCallback* pCallback)
{
    _dispatcher.Remove(pCallback);
}

void KorloSettingsClientImpl::ReportMissedChanges(bool)
{
}

void KorloSettingsClientImpl::SetConnectionCallback(IConnectionCallback* pCallback)
{
    const osa::MutexAutoLock lock(&_callbackMutex);
    _pConnectionCallback = pCallback;
    if (pCallback == nullptr)
    {
        return;
    }
    try
    {
        pCallback->OnConnectionState(_isConnected);
    }
    catch (...)
    {
        _pConnectionCallback = nullptr;  // its owner may be an object whose construction fails with it
        throw;
    }
}

void KorloSettingsClientImpl::NoteConnection(bool isConnected) const
{
    const osa::MutexAutoLock lock(&_callbackMutex);
    _isConnected = isConnected;
}

void KorloSettingsClientImpl::ReportConnection(bool isConnected)
{
    const osa::MutexAutoLock lock(&_callbackMutex);
    const bool isNew = _isConnected != isConnected;
    _isConnected = isConnected;
    if (isNew && _pConnectionCallback != nullptr)
    {
        _pConnectionCallback->OnConnectionState(isConnected);
    }
}

void KorloSettingsClientImpl::AddReceived(core::IniFile& received, core::IniFile& settings)
{
    if (settings.empty())
    {
        settings = std::move(received);
    }
    else
    {
        settings.MergeSettings(received);
    }
}

}  // namespace korlo::settings::client
