#pragma once
// Which groups and keys a change is about, within bounds.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace korlo::settings::server
{

/// The names of groups, and of keys in them, without a value: at most MostBytes of group names and MostBytes of keys,
/// each counted with its group as `[Group]Key`; of the rest the number alone. A name that does not fit is left out,
/// and with a group its keys; a shorter one behind it may still fit.
///
///     ChangedNames names;
///     names.AddGroup("Audio");
///     names.AddKey("volume");
///     names.AddKey("balance");
///
/// Adding costs the length of the name. The list takes less than 4 KiB, and no heap while it is empty.
///
/// Thread safety: none of its own; the owner guards it.
class ChangedNames
{
public:
    /// What the listed names may hold in all; further ones are only counted.
    static constexpr std::size_t MostBytes = 1024;

    /// Adds a group. Whoever adds several adds them in byte order, each once.
    void AddGroup(std::string_view group);

    /// Adds a key of the group that was added last, in byte order.
    void AddKey(std::string_view key);

    /// True until something is added.
    bool IsEmpty() const { return _digest == 0; }

    /// How many names were left out: keys, and groups that were added without one.
    std::size_t GetMore() const { return _more; }

    /// How many groups were left out, with keys or without.
    std::size_t GetMoreGroups() const { return _moreGroups; }

    /// Of all names, those that were left out too. Lists with other names have another one, but for a rare accident;
    /// never 0 once something was added.
    std::size_t GetDigest() const { return _digest; }

    /// The names that are listed, packed for Visit: for whoever keeps many lists.
    const std::string& GetPacked() const { return _packed; }

    /// Is given one name.
    using OnName = std::function<void(std::string_view)>;

    /// Calls `onGroup` with each group that is listed and, after it, `onKey` with each of its keys.
    static void Visit(std::string_view packed, const OnName& onGroup, const OnName& onKey);

    /// True when both lists name one thing: a key, or a group of which either names no key.
    static bool HaveCommonName(std::string_view leftPacked, std::string_view rightPacked);

    /// True when both lists name one group.
    static bool HaveCommonGroup(std::string_view leftPacked, std::string_view rightPacked);

private:
    void Append(std::string_view name, unsigned int kind);
    void Digest(std::string_view name, std::size_t kind);

    std::string _packed;
    std::size_t _groupBytes = 0;     // of the groups that are listed
    std::size_t _keyBytes = 0;       // of the keys that are listed, as [Group]Key
    std::size_t _lastGroupSize = 0;  // of the group that was added last
    bool _isLastListed = false;      // that group is
    bool _isLastAlone = false;       // that group is not, and has no key yet: it counts itself
    std::size_t _more = 0;
    std::size_t _moreGroups = 0;
    std::size_t _digest = 0;
};

}  // namespace korlo::settings::server
