#include "RestrictedFilesLoader.h"

#include "korlo/core/Logger.h"

namespace korlo::daemon
{
void RestrictedFilesLoader::LoadRestrictedSettings(settings::server::SettingsCombiner& combiner)
{
    const core::Logger& logger = *core::Logger::GetLogger("RestrictedFilesLoader");
    for (const std::string& file : _files.Find())
    {
        logger.Trace("Loading restricted settings from '%s'", file.c_str());
        core::IniFile settings(file.c_str());
        if (_clientsAreRefused && settings.Find(RefusedGroup) != settings.end())
        {
            logger.Warning("Group '%s' of '%s' is left out: with access rules it tells a client what was refused to it",
                           RefusedGroup, file.c_str());
            settings.RemoveGroup(RefusedGroup);
        }
        combiner.RunFilters(settings);
        combiner.Merge(settings);
        if (_pLoaded != nullptr)
        {
            _pLoaded->Add("restricted", file, settings);
        }
    }
}

}  // namespace korlo::daemon
