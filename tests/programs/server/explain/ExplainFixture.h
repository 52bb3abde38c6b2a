#pragma once
// A store over files in a fresh folder, and what explains it.

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "FileSettingsPersister.h"
#include "RestrictedFilesLoader.h"
#include "explain/LayerFiles.h"
#include "explain/SettingExplainer.h"
#include "settings/server/SettingsManager.h"
#include "support/Files.h"
#include "support/TemporaryFolder.h"

namespace korlo::daemon
{

/// Write the files, then Start the store; Start once more is a restart of the server.
///
/// Thread safety: none of its own; the owner guards it.
class ExplainedStore
{
private:
    const TemporaryFolder _folder;  // first

public:
    ExplainedStore()
    {
        std::filesystem::create_directory(PathOf("d"));
        std::filesystem::create_directory(PathOf("r"));
    }

    /// @param name "d/NAME.ini" of a default file, "r/NAME.ini" of a restricted one, or "user.ini".
    void Write(const std::string& name, const std::string& text) const { WriteFile(PathOf(name), text); }
    std::string PathOf(const std::string& name) const { return _folder.PathOf(name); }

    settings::server::SettingsManager& Start()
    {
        _pExplainer.reset();
        _pStore.reset();
        _pFiles = std::make_unique<StoreFiles>(
            StoreFiles{LayerFiles(_defaults), user, LayerFiles(_restricted), clientsAreRefused});
        _pPersister = std::make_unique<FileSettingsPersister>(_defaults, user);
        _pRestrictedLoader = std::make_unique<RestrictedFilesLoader>(_restricted, clientsAreRefused);
        _pStore = std::make_unique<settings::server::SettingsManager>(_pPersister.get(), _pRestrictedLoader.get(),
                                                                      nullptr, false);
        _pExplainer = std::make_unique<SettingExplainer>(*_pStore, *_pFiles);
        return *_pStore;
    }

    Explanation Explain(const settings::SettingLocator& locator) const { return _pExplainer->Explain(locator); }
    const SettingExplainer& GetExplainer() const { return *_pExplainer; }

    /// A line for each occurrence, the one that counts behind a '*': LAYER FILE:LINE VALUE: WHY. Files are named as in
    /// Write.
    std::string Tell(const settings::SettingLocator& locator) const
    {
        const Explanation explanation = Explain(locator);
        std::string text;
        for (std::size_t index = 0; index < explanation.occurrences.size(); ++index)
        {
            const Occurrence& occurrence = explanation.occurrences[index];
            constexpr const char* layers[] = {"default", "user", "restricted", "unsaved"};
            text += explanation.winner == index ? "* " : "- ";
            text += layers[static_cast<std::size_t>(occurrence.layer)];
            text += occurrence.file ? ' ' + *occurrence.file : "";
            text += occurrence.line != 0 ? ':' + std::to_string(occurrence.line) : "";
            text += occurrence.value ? ' ' + *occurrence.value : "";
            text += ": " + occurrence.why + '\n';
        }
        const std::string folder = PathOf("");
        for (std::size_t at = text.find(folder); at != std::string::npos; at = text.find(folder))
        {
            text.erase(at, folder.size());
        }
        return text;
    }

    std::string user = PathOf("user.ini");  // empty for none
    bool clientsAreRefused = false;

private:
    const SettingsFiles _defaults{{PathOf("d")}};
    const SettingsFiles _restricted{{PathOf("r")}};
    std::unique_ptr<RestrictedFilesLoader> _pRestrictedLoader;
    std::unique_ptr<StoreFiles> _pFiles;
    std::unique_ptr<FileSettingsPersister> _pPersister;
    std::unique_ptr<settings::server::SettingsManager> _pStore;
    std::unique_ptr<SettingExplainer> _pExplainer;
};

}  // namespace korlo::daemon
