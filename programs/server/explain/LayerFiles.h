#pragma once
// The files of a layer, and whether they are still what was loaded.

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "SettingsFiles.h"

namespace korlo::daemon
{

/// Remembers what the files of one layer were like at its construction: before the store loads them, so that no change
/// in between is missed. They are told by their inode, size and times; nothing of their content is kept.
///
/// Thread safety: all methods, from any thread; nothing changes after construction.
class LayerFiles
{
public:
    struct File
    {
        std::string path;
        bool isChanged;  ///< Since the construction; true as well for one that is new or gone.
    };

    /// A file or a folder that cannot be looked at is for who loads it to tell of.
    explicit LayerFiles(const SettingsFiles& files);

    /// The files as they are now, in the order in which they override one another, and behind them those that are gone:
    /// who reads them learns why.
    std::vector<File> Find() const;

private:
    /// What tells one content of a file from another.
    struct Mark
    {
        std::uint64_t device;
        std::uint64_t inode;
        std::int64_t size;
        std::int64_t modifiedNs;
        std::int64_t changedNs;

        bool operator==(const Mark&) const = default;
    };

    static std::optional<Mark> MarkOf(const std::string& path);

    const SettingsFiles _files;
    std::vector<std::pair<std::string, std::optional<Mark>>> _loaded;
};

/// The files of all layers.
struct StoreFiles
{
    LayerFiles defaults;
    std::string user;  ///< empty where the user layer is kept in memory alone
    LayerFiles restricted;
    bool clientsAreRefused;  ///< as RestrictedFilesLoader takes it
};

}  // namespace korlo::daemon
