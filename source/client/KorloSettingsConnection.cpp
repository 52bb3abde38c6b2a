#include "client/KorloSettingsConnection.h"

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

}  // namespace korlo::settings::client
