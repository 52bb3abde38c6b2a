#include "KorloSettingsClientImpl.h"

namespace korlo::settings::client
{

KorloSettingsClientImpl::KorloSettingsClientImpl() : _pLogger(core::Logger::GetLogger("KorloSettings"))
{
}

KorloSettingsClientImpl::~KorloSettingsClientImpl()
{
    _pLogger = nullptr;
}

}  // namespace korlo::settings::client
