#include "client/KorloSettingsClientImpl.h"

#include <utility>

namespace korlo::settings::client
{

KorloSettingsClientImpl::KorloSettingsClientImpl() : _pLogger(core::Logger::GetLogger("KorloSettings"))
{
}

KorloSettingsClientImpl::~KorloSettingsClientImpl()
{
    _pLogger = nullptr;
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
