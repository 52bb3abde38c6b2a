#pragma once
// Where the files of the layers speak of one key.

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "explain/LayerFiles.h"
#include "settings/SettingLocator.h"

namespace korlo::daemon
{

/// Where a value comes from; in the order in which the layers are loaded one over the other.
enum class Layer
{
    Default,
    User,
    Restricted,
    Unsaved  ///< changed without persisting
};

/// One place that gives the key a value.
struct Occurrence
{
    Layer layer;
    std::optional<std::string> file;   ///< nothing for what is in the store alone
    std::size_t line = 0;              ///< 0 without a file, and for a file that cannot be read
    std::optional<std::string> value;  ///< nothing for a file that cannot be read
    std::string why;                   ///< why it counts or not; empty while that is open
    bool isChanged = false;            ///< The file is another one than was loaded.
};

/// An entry of the record of erased groups.
struct RecordEntry
{
    std::size_t line;
    std::string key;
    std::string value;
    std::string log = {};  ///< the path of the log that it stands in; empty for the user file itself
};

/// What the files say of one key now. The rules of a load that need nothing but the files have been applied: what
/// restricted groups, load priorities and groups that are no settings keep out says so in its `why`.
struct KeySources
{
    std::vector<Occurrence> occurrences;           ///< in the order in which they are loaded
    std::vector<RecordEntry> record;               ///< what in the user file and its log selects the group
    std::optional<std::string> changedDefaults;    ///< the first default file that is another one than was loaded
    std::optional<std::string> changedRestricted;  ///< the first such restricted file
};

/// The group in which files claim groups, and the one in which the user layer records what was erased.
inline constexpr const char* ClaimingGroup = "KorloSettings/LoadPriority";
inline constexpr const char* RecordGroup = "KorloSettings/Data/DeletedGroups";

/// Reads every file, as a start of the server does, but for one key. Takes no lock; a file that cannot be read is an
/// occurrence without a value. Of what the user file's log says of the key, however often it was changed, the last
/// value is an occurrence.
KeySources FindKeySources(const StoreFiles& files, const settings::SettingLocator& locator);

}  // namespace korlo::daemon
