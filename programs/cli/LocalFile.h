#pragma once
// The file of --local, and how changes find their way back into it.

#include <optional>
#include <string>

#include "FolderLock.h"
#include "korlo/core/IniFile.h"
#include "korlo/osa/CrashSafeFile.h"

namespace korlo::settings::cli
{

/// What a command is about to do with the settings.
enum class Purpose
{
    Reading,             ///< A file must exist.
    Changing,            ///< It must exist, and no other process changes it meanwhile.
    ChangingOrCreating,  ///< As Changing; a missing file counts as an empty one.
    Watching  ///< Changes may be made and are heard of; a file must exist and is locked for each change alone.
};

/// A settings file that is read as a document and changed as a text, so that nothing in it is lost but what a change
/// replaces or removes: restricted groups, load priorities, comments and lines that make no sense stay. The file is
/// replaced as a whole, its mode and owner kept, and only when something changed.
///
/// Thread safety: none of its own; the owner guards it. Processes that change one file at once take turns.
class LocalFile
{
public:
    using enum Purpose;

    /// Reads the file; unless it is for Reading or Watching, it stays locked until this object is destroyed. Lines that
    /// make no sense are warned of and otherwise skipped.
    /// @throws Failure; osa::Exception naming the path and the system's reason.
    LocalFile(const std::string& path, Purpose purpose);

    /// What the file held at construction.
    const core::IniFile& GetDocument() const { return _document; }

    /// Carries the difference between two states of some groups over to the file as it stands now: what appeared or
    /// changed from `before` to `after` is set, what disappeared is removed, everything else in the file stays.
    /// @throws as the constructor; the file then holds what it held.
    void Apply(const core::IniFile& before, const core::IniFile& after);

private:
    osa::CrashSafeFile _file;
    const Purpose _purpose;
    std::optional<FolderLock> _lock;
    core::IniFile _document;
};

}  // namespace korlo::settings::cli
