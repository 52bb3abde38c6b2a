#pragma once
// One at a time: runs of the tool that change files of one folder.

#include <string>

namespace korlo::settings::cli
{

/// Holds the folder of a file against every other holder, in this process and others, from construction to
/// destruction, and waits for it without limit. The file need not exist. Nothing is left behind on the disk.
///
/// The folder and not the file, because a file that is replaced is another file afterwards, and not a file beside it,
/// because nobody would know when to remove that. A symbolic link is followed: two names of one file have one lock.
///
/// Thread safety: none of its own; the owner guards it.
class FolderLock
{
public:
    /// @throws Failure when the folder cannot be opened or locked.
    explicit FolderLock(const std::string& file);
    FolderLock(const FolderLock&) = delete;
    FolderLock& operator=(const FolderLock&) = delete;
    ~FolderLock();

private:
    int _folder;
};

}  // namespace korlo::settings::cli
