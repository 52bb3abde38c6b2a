#pragma once
// Builds the groups of a document from what an IniParser finds.

#include <cstddef>
#include <string_view>
#include <utility>
#include <vector>

#include "core/IniParser.h"
#include "korlo/core/IniFile.h"

namespace korlo::core
{

/// Gathers the sections of one text and builds each group, and then the whole map, at once: so they are stored
/// compactly, and groups or keys in any order cost one sort.
///
/// Thread safety: none of its own; lives on the stack of the operation that loads.
class IniLoader : public IIniSink
{
public:
    /// @param source the file's path for the warnings, borrowed, or null when there is no file.
    explicit IniLoader(const char* source) : _source(source) {}

    void OnGroup(std::string_view name) override;
    void OnValue(std::string_view key, std::string_view value) override;
    void OnBadLine(std::size_t number, const char* reason) override;

    /// What was found; call once, at the end of the text. Logs how many warnings were left out, if any.
    IniFile::GroupMap TakeGroups();

private:
    using Pair = std::pair<std::string_view, std::string_view>;
    using Section = std::pair<std::string_view, IniFile::KeyValueMap>;

    void FinishSection();
    IniFile::KeyValueMap BuildSection();

    const char* _source;
    std::size_t _badLines = 0;
    std::string_view _name;
    bool _inSection = false;
    bool _pairsAscend = true;  // strictly, as in every document that was saved: it needs no sort
    std::vector<Pair> _pairs;  // of the section that is being read
    bool _sectionsAscend = true;
    std::vector<Section> _sections;
};

}  // namespace korlo::core
