#include "RestrictedFilesLoader.h"

namespace korlo::daemon
{

void RestrictedFilesLoader::LoadRestrictedSettings(settings::server::SettingsCombiner& combiner)
{
    for (const std::string& file : _files.Find())
    {
        combiner.LoadFromFile(file);
    }
}

}  // namespace korlo::daemon
