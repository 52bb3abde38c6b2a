#include "settings/server/SettingsCombiner.h"

namespace korlo::settings::server
{

SettingsCombiner::SettingsCombiner(core::IniFile& target) : _target(target)
{
}

void SettingsCombiner::AddFilter(IIncludeFilter* pFilter)
{
    _filters.push_back(pFilter);
}

void SettingsCombiner::RunFilters(core::IniFile& ini) const
{
    for (IIncludeFilter* pFilter : _filters)
    {
        pFilter->FilterIni(ini);
    }
}

void SettingsCombiner::Merge(const core::IniFile& ini)
{
    _target.MergeSettings(ini);
}

void SettingsCombiner::LoadFromIni(const core::IniFile& source)
{
    core::IniFile ini;
    ini.MergeSettings(source);
    RunFilters(ini);
    Merge(ini);
}

void SettingsCombiner::LoadFromString(const std::string& text)
{
    core::IniFile ini;
    ini.LoadFromString(text);
    RunFilters(ini);
    Merge(ini);
}

void SettingsCombiner::LoadFromFile(const std::string& path)
{
    core::IniFile ini(path.c_str());
    RunFilters(ini);
    Merge(ini);
}

}  // namespace korlo::settings::server
