#pragma once
// What the store was built from.

#include <cstddef>
#include <string>
#include <vector>

#include "korlo/core/IniFile.h"

namespace korlo::daemon
{

/// What one file gave.
///
/// Thread safety: none of its own; the owner guards it.
struct LoadedFile
{
    std::string kind;  ///< default, restricted, user
    std::string path;
    std::size_t groups;  ///< those that were left out, for their names or their load priority, do not count
    std::size_t keys;
};

/// The files that a start has read, in that order. Restores read the defaults again; that is not noted.
///
/// Thread safety: Add and Seal belong to the start; once sealed, all methods, from any thread.
class LoadedFiles
{
public:
    /// Notes a file, before Seal; does nothing after.
    /// @param taken what is merged into the store of it.
    void Add(const char* kind, const std::string& path, const core::IniFile& taken)
    {
        if (!_isSealed)
        {
            std::size_t keys = 0;
            for (const auto& [group, values] : taken)
            {
                keys += values.size();
            }
            _files.push_back({kind, path, taken.size(), keys});
        }
    }

    /// The store is loaded.
    void Seal() { _isSealed = true; }

    const std::vector<LoadedFile>& GetFiles() const { return _files; }

private:
    std::vector<LoadedFile> _files;
    bool _isSealed = false;
};

}  // namespace korlo::daemon
