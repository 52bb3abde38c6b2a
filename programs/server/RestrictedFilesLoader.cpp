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
        combiner.LoadFromFile(file);
    }
}

}  // namespace korlo::daemon
