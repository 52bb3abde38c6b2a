#include "client/KorloSettingsClientImplLocal.h"

namespace korlo::settings::client
{
namespace
{

common::GroupNameMatcher MatcherOf(const GroupNameCollection& groups)
{
    common::GroupNameMatcher matcher;
    matcher.AddNamesAndPatterns(groups);
    return matcher;
}

}  // namespace

void KorloSettingsClientImplLocal::LocalPersister::LoadDefaultSettings(server::SettingsCombiner& combiner)
{
    combiner.LoadFromIni(_defaults);
}

KorloSettingsClientImplLocal::KorloSettingsClientImplLocal(const core::IniFile* pDefaults)
    : KorloSettingsClientImpl(true),  // it is its own server
      _persister(pDefaults),
      _settingsManager(&_persister, nullptr, nullptr, false)
{
}

void KorloSettingsClientImplLocal::GetSettings(const GroupNameCollection& groups, core::IniFile& settings) const
{
    _settingsManager.GetGroups(settings, MatcherOf(groups));
}

void KorloSettingsClientImplLocal::MergeSettings(const core::IniFile& changes, unsigned int flags)
{
    _settingsManager.MergeSettings(changes, flags);
}

bool KorloSettingsClientImplLocal::TestAndMerge(const core::IniFile& expected, const core::IniFile& changes)
{
    return _settingsManager.TestAndMerge(expected, changes);
}

void KorloSettingsClientImplLocal::Subscribe(IChangeCallback* pCallback, const GroupNameCollection& groups)
{
    _localDispatcher.AddCallback(pCallback, groups);
    _settingsManager.Subscribe(static_cast<IChangeCallback*>(this), groups);
}

void KorloSettingsClientImplLocal::OverwriteSettings(const GroupNameCollection& groups, const core::IniFile& settings)
{
    _settingsManager.OverwriteSettings(groups, settings);
}

void KorloSettingsClientImplLocal::RestoreToDefaults(const GroupNameCollection& groups)
{
    _settingsManager.RestoreToDefaults(MatcherOf(groups));
}

void KorloSettingsClientImplLocal::OnChange(const GroupNameCollection& changedGroups, const core::IniFile&)
{
    core::IniFile current;
    _settingsManager.GetGroups(current, MatcherOf(changedGroups));
    _localDispatcher.OnChange(changedGroups, current);
}

}  // namespace korlo::settings::client
