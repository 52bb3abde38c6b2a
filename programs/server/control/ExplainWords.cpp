#include "control/ExplainWords.h"

#include <optional>

#include "ControlProtocol.h"
#include "FileSettingsPersister.h"
#include "SettingsFiles.h"
#include "korlo/osa/Exception.h"
#include "settings/SettingLocator.h"
#include "settings/server/LoadPriorityIncludeFilter.h"
#include "settings/server/SettingsCombiner.h"

namespace korlo::daemon
{
namespace
{

const char* NameOf(Layer layer)
{
    switch (layer)
    {
    case Layer::Default:
        return "default";
    case Layer::User:
        return "user";
    case Layer::Restricted:
        return "restricted";
    case Layer::Unsaved:
        return "unsaved";
    }
    return "";
}

/// What is not there has no key.
void Describe(const Occurrence& occurrence, core::IniFile::KeyValueMap& values)
{
    values["layer"] = NameOf(occurrence.layer);
    if (occurrence.value)
    {
        values["value"] = *occurrence.value;
    }
    if (occurrence.file)
    {
        values["file"] = *occurrence.file;
    }
    if (occurrence.line != 0)
    {
        values["line"] = std::to_string(occurrence.line);
    }
}

}  // namespace

core::IniFile ExplainWord::Answer(const std::string& operands)
{
    const std::optional<settings::SettingLocator> locator = control::UnquotedLocator(operands);
    if (!locator)
    {
        throw osa::Exception("usage: explain [GROUP]KEY");
    }
    const Explanation explanation = _explainer.Explain(*locator);
    core::IniFile answer;
    core::IniFile::KeyValueMap& about = answer[control::ExplainGroup];
    about["group"] = locator->group;
    about["key"] = locator->key;
    if (explanation.winner)
    {
        Describe(explanation.occurrences[*explanation.winner], about);
        about["candidate"] = std::to_string(*explanation.winner + 1);
    }
    for (std::size_t index = 0; index < explanation.occurrences.size(); ++index)
    {
        const Occurrence& occurrence = explanation.occurrences[index];
        core::IniFile::KeyValueMap& candidate = answer[control::CandidateGroup + std::to_string(index + 1)];
        Describe(occurrence, candidate);
        candidate["why"] = occurrence.why;
    }
    return answer;
}

core::IniFile DefaultsWord::Answer(const std::string& operands)
{
    CheckStandsAlone(control::Defaults, operands);
    core::IniFile defaults;
    settings::server::SettingsCombiner combiner(defaults);
    settings::server::LoadPriorityIncludeFilter priorities;  // no claims yet, as at a start
    combiner.AddFilter(&priorities);
    FileSettingsPersister(SettingsFiles(_filesAndFolders), std::string()).LoadDefaultSettings(combiner);
    return defaults;
}

}  // namespace korlo::daemon
