#pragma once
// The words of the control door that are about where settings come from.

#include <string>
#include <vector>

#include "control/IControlWord.h"
#include "explain/LayerFiles.h"
#include "explain/SettingExplainer.h"
#include "settings/server/SettingsManager.h"

namespace korlo::daemon
{

/// "explain [GROUP]KEY": the value of the key, and every place that gives it one, with why it counts or not.
///
/// Thread safety: as IControlWord.
class ExplainWord : public AnsweredWord
{
public:
    /// @param store, files borrowed.
    ExplainWord(const settings::server::SettingsManager& store, const StoreFiles& files) : _explainer(store, files) {}

    core::IniFile Answer(const std::string& operands) override;

private:
    const SettingExplainer _explainer;
};

/// "defaults": the default settings that a start would load from the files as they are now.
///
/// Thread safety: as IControlWord.
class DefaultsWord : public AnsweredWord
{
public:
    /// @param filesAndFolders of --defaults.
    explicit DefaultsWord(const std::vector<std::string>& filesAndFolders) : _filesAndFolders(filesAndFolders) {}

    core::IniFile Answer(const std::string& operands) override;

private:
    const std::vector<std::string> _filesAndFolders;
};

}  // namespace korlo::daemon
