#pragma once
// Fills one layer of the store from documents.

#include <string>
#include <vector>

#include "korlo/core/IniFile.h"
#include "settings/server/IIncludeFilter.h"

namespace korlo::settings::server
{

/// Wraps the document of one layer while it is loaded. Each document that is handed to it is copied, edited by the
/// filters in the order in which they were added, and merged into the target: later documents override earlier ones key
/// by key.
///
/// Thread safety: none of its own; it lives on the stack of the operation that loads the layer.
class SettingsCombiner
{
public:
    /// @param target borrowed; must outlive the combiner.
    explicit SettingsCombiner(core::IniFile& target);
    SettingsCombiner(const SettingsCombiner&) = delete;
    SettingsCombiner& operator=(const SettingsCombiner&) = delete;
    ~SettingsCombiner() = default;

    /// @param pFilter borrowed; must outlive the combiner.
    void AddFilter(IIncludeFilter* pFilter);

    /// Lets every filter edit `ini`. What a filter throws passes out.
    void RunFilters(core::IniFile& ini) const;

    /// Merges `ini` into the target as it is.
    void Merge(const core::IniFile& ini);

    /// Filters a copy of `source` and merges it; `source` is not changed.
    void LoadFromIni(const core::IniFile& source);

    /// Parses INI text, filters and merges it.
    void LoadFromString(const std::string& text);

    /// Reads the INI file at `path`, filters and merges it.
    /// @throws osa::Exception naming the path and the reason when it cannot be read; the target is then as it was.
    void LoadFromFile(const std::string& path);

private:
    std::vector<IIncludeFilter*> _filters;  // borrowed
    core::IniFile& _target;
};

}  // namespace korlo::settings::server
