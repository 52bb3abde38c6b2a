#pragma once
// The INI files that options name.

#include <string>
#include <vector>

namespace korlo::daemon
{

/// Files, and folders of files, in the order in which they override one another.
///
/// Thread safety: all methods, from any thread; nothing changes after construction.
class SettingsFiles
{
public:
    /// What becomes of folders within folders.
    enum Folders
    {
        LeftOut,
        Listed
    };

    explicit SettingsFiles(const std::vector<std::string>& filesAndFolders) : _filesAndFolders(filesAndFolders) {}

    /// The paths as they are now: of a folder, its files named "*.ini" in byte order of their names, hidden ones left
    /// out. A file that does not exist is listed all the same, so that whoever reads it tells of it.
    /// @param folders Listed for those in a folder that are named like its files, too: whoever reads them tells of
    /// them.
    /// @throws osa::Exception naming a folder that cannot be read, and the reason.
    std::vector<std::string> Find(Folders folders = LeftOut) const;

private:
    const std::vector<std::string> _filesAndFolders;
};

}  // namespace korlo::daemon
