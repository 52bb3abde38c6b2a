#include "settings/KorloSettingsClient.h"

#include <cstdlib>
#include <utility>

#include "client/KorloSettingsClientImplConfirming.h"
#include "client/KorloSettingsClientImplLocal.h"
#include "client/KorloSettingsClientImplMultiThreaded.h"
#include "client/KorloSettingsClientImplSingleThreaded.h"
#include "client/KorloSettingsLocalConnection.h"
#include "client/KorloSettingsTcpConnection.h"
#include "korlo/osa/Exception.h"

namespace korlo::settings
{
namespace
{

using client::KorloSettingsClientImpl;
using client::KorloSettingsClientImplConfirming;
using client::KorloSettingsClientImplLocal;
using client::KorloSettingsClientImplMultiThreaded;
using client::KorloSettingsClientImplSingleThreaded;
using client::KorloSettingsLocalConnection;
using client::KorloSettingsTcpConnection;
using common::GroupNamesOf;
using core::IniFile;

constexpr const char* LocalFileVariable = "KORLO_SETTINGS_LOCALFILE";

std::unique_ptr<KorloSettingsClientImpl> CreateOverFile(const char* path, const IniFile* pDefaults)
{
    IniFile settings = pDefaults != nullptr ? *pDefaults : IniFile();
    if (*path != '\0')
    {
        settings.Load(path);
    }
    return std::make_unique<KorloSettingsClientImplLocal>(&settings);
}

/// @param pDefaults may be null.
std::unique_ptr<KorloSettingsClientImpl> CreateImpl(KorloSettingsClient::OperationMode mode, const IniFile* pDefaults)
{
    if (const char* path = std::getenv(LocalFileVariable))
    {
        return CreateOverFile(path, pDefaults);
    }
    switch (mode)
    {
    case KorloSettingsClient::MultiThreaded:
        return std::make_unique<KorloSettingsClientImplMultiThreaded>(std::make_unique<KorloSettingsTcpConnection>());
    case KorloSettingsClient::SingleThreaded:
        return std::make_unique<KorloSettingsClientImplSingleThreaded>(std::make_unique<KorloSettingsTcpConnection>());
    case KorloSettingsClient::Local:
        return std::make_unique<KorloSettingsClientImplLocal>(pDefaults);
    case KorloSettingsClient::LocalSingleThreaded:
        return std::make_unique<KorloSettingsClientImplSingleThreaded>(
            std::make_unique<KorloSettingsLocalConnection>());
    case KorloSettingsClient::LocalMultiThreaded:
        return std::make_unique<KorloSettingsClientImplMultiThreaded>(std::make_unique<KorloSettingsLocalConnection>());
    }
    throw osa::Exception("Invalid or unsupported operation mode");
}

}  // namespace

KorloSettingsClient::KorloSettingsClient(OperationMode mode) : _pImpl(CreateImpl(mode, nullptr))
{
}

KorloSettingsClient::KorloSettingsClient(OperationMode mode, const IniFile& defaults)
    : _pImpl(CreateImpl(mode, &defaults))
{
}

KorloSettingsClient::KorloSettingsClient(std::unique_ptr<KorloSettingsClientImpl> pImpl) : _pImpl(std::move(pImpl))
{
}

KorloSettingsClient KorloSettingsClient::Confirming(const std::string& address)
{
    const char* const localFile = address.empty() ? std::getenv(LocalFileVariable) : nullptr;
    return KorloSettingsClient(localFile != nullptr ? CreateOverFile(localFile, nullptr)
                                                    : std::make_unique<KorloSettingsClientImplConfirming>(address));
}

KorloSettingsClient::~KorloSettingsClient() = default;

void KorloSettingsClient::GetSettings(const GroupNameCollection& groups, IniFile& settings) const
{
    _pImpl->GetSettings(groups, settings);
}

void KorloSettingsClient::GetSettings(const std::string& group, IniFile& settings) const
{
    _pImpl->GetSettings(GroupNameCollection{group}, settings);
}

void KorloSettingsClient::RefreshSettings(IniFile& settings) const
{
    _pImpl->GetSettings(GroupNamesOf(settings), settings);
}

std::string KorloSettingsClient::GetValue(const SettingLocator& locator) const
{
    IniFile settings;
    GetSettings(locator.group, settings);
    return settings.GetValueOrDefault(locator.group, locator.key);
}

std::string KorloSettingsClient::GetValue(const std::string& locator) const
{
    return GetValue(SettingLocator(locator));
}

void KorloSettingsClient::SetValue(const SettingLocator& locator, const std::string& value)
{
    IniFile changes;
    changes.SetValue(locator.group, locator.key, value);
    MergeSettings(changes);
}

void KorloSettingsClient::SetValue(const std::string& locator, const std::string& value)
{
    SetValue(SettingLocator(locator), value);
}

void KorloSettingsClient::MergeSettings(const IniFile& changes)
{
    _pImpl->MergeSettings(changes, 0);
}

void KorloSettingsClient::MergeSettings(const IniFile& changes, unsigned int flags)
{
    _pImpl->MergeSettings(changes, flags);
}

bool KorloSettingsClient::TestAndMerge(const IniFile& expected, const IniFile& changes)
{
    return _pImpl->TestAndMerge(expected, changes);
}

void KorloSettingsClient::OverwriteSettings(const GroupNameCollection& groups, const IniFile& settings)
{
    _pImpl->OverwriteSettings(groups, settings);
}

void KorloSettingsClient::OverwriteSettings(const std::string& group, const IniFile& settings)
{
    OverwriteSettings(GroupNameCollection{group}, settings);
}

void KorloSettingsClient::OverwriteSettings(const IniFile& settings)
{
    OverwriteSettings(GroupNamesOf(settings), settings);
}

void KorloSettingsClient::EraseGroups(const GroupNameCollection& groups)
{
    OverwriteSettings(groups, IniFile());
}

void KorloSettingsClient::EraseGroups(const std::string& group)
{
    OverwriteSettings(group, IniFile());
}

void KorloSettingsClient::RestoreToDefaults(const GroupNameCollection& groups)
{
    _pImpl->RestoreToDefaults(groups);
}

void KorloSettingsClient::RestoreToDefaults(const std::string& group)
{
    RestoreToDefaults(GroupNameCollection{group});
}

void KorloSettingsClient::Subscribe(IChangeCallback* pCallback, const GroupNameCollection& groups)
{
    _pImpl->Subscribe(pCallback, groups);
}

void KorloSettingsClient::Subscribe(IChangeCallback* pCallback, const std::string& group)
{
    Subscribe(pCallback, GroupNameCollection{group});
}

void KorloSettingsClient::UnSubscribe(IChangeCallback* pCallback)
{
    _pImpl->UnSubscribe(pCallback);
}

void KorloSettingsClient::ReportMissedChanges(bool isWanted)
{
    _pImpl->ReportMissedChanges(isWanted);
}

void KorloSettingsClient::SetConnectionCallback(IConnectionCallback* pCallback)
{
    _pImpl->SetConnectionCallback(pCallback);
}

}  // namespace korlo::settings
