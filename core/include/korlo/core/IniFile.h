#pragma once
// The settings document: named groups of key/value strings, and their text form (docs/ini-format.md).

#include <cstddef>
#include <istream>
#include <ostream>
#include <set>
#include <streambuf>
#include <string>
#include <string_view>
#include <vector>

#include "korlo/core/CompactMap.h"

namespace korlo::core
{

/// A settings document: an ordered map from group name to group, each group an ordered map from key to value, all
/// plain byte strings in byte-wise order. A value type; copies share nothing.
///
///     IniFile ini;
///     ini.LoadFromString("[Network]\nmode=dhcp\n");
///     ini["Network"]["address"] = "192.0.2.1";
///     for (const auto& [group, values] : ini)
///         for (const auto& [key, value] : values)
///             Print(group, key, value);
///
/// References and iterators stay valid until their own group or key is removed, or the document is cleared or assigned
/// to. A document that was loaded, copied or merged into an empty one is laid out compactly; see CompactMap.
///
/// Thread safety: none of its own; the owner guards it. Any number of threads may read at once.
class IniFile
{
public:
    /// The keys of a group, with their values, in byte order.
    using KeyValueMap = CompactMap<std::string>;

    /// The groups in byte order of their names.
    using GroupMap = CompactMap<KeyValueMap>;

    /// A name and its keys; a document is a range of these.
    using value_type = GroupMap::value_type;
    using iterator = GroupMap::iterator;
    using const_iterator = GroupMap::const_iterator;

    /// A line of INI text that makes no sense, counted from 1, and why.
    struct BadLine
    {
        std::size_t number;  ///< of the line
        std::string reason;  ///< a sentence without its full stop
    };

    IniFile() = default;

    /// The document in the file at `path`; see Load.
    explicit IniFile(const char* path);

    /// The groups in name order.
    iterator begin() { return _groups.begin(); }
    iterator end() { return _groups.end(); }
    const_iterator begin() const { return _groups.begin(); }
    const_iterator end() const { return _groups.end(); }
    const_iterator cbegin() const { return _groups.begin(); }
    const_iterator cend() const { return _groups.end(); }

    /// How many groups there are.
    std::size_t size() const { return _groups.size(); }
    bool empty() const { return _groups.empty(); }

    /// The first group whose name is not less than `name`, or the end.
    const_iterator LowerBound(std::string_view name) const { return _groups.lower_bound(name); }

    /// The group, or the end.
    const_iterator Find(std::string_view name) const { return _groups.find(name); }

    /// Removes every group.
    void Clear();

    /// Reads the INI file at `path` on top of what the document holds: its keys replace equal ones, everything else
    /// stays. A line that makes no sense is skipped with one warning that names the file and the line.
    /// @throws osa::Exception naming the path and the system's reason when the file cannot be opened or read; the
    ///         document is then as it was.
    void Load(const char* path);

    /// The same from a stream, which is read to its end and no byte beyond.
    void LoadFromStream(std::istream& in);
    void LoadFromStream(std::streambuf& in);

    /// The same from a string.
    void LoadFromString(const std::string& text);

    /// Writes the whole document as INI text, groups and keys in order. No written line is exactly ".", and what is
    /// written reads back as the same bytes. Errors show in the stream's state, nowhere else: where the text must be
    /// whole, write to a stl::TextStream.
    void SaveToStream(std::ostream& out) const;

    /// Writes one group in the same form: its header line and its key lines. Writes nothing for an unknown group.
    void SaveGroupToStream(std::ostream& out, const std::string& group) const;

    /// The lines of the file at `path` that Load would skip.
    /// @throws osa::Exception as Load does.
    static std::vector<BadLine> FindBadLines(const char* path);

    /// Sets here every key of every group of `other`; groups of `other` without keys are created empty. Nothing is ever
    /// removed.
    void MergeSettings(const IniFile& other);

    /// The same for one group of `other`; does nothing if `other` has no such group.
    void MergeSettings(const IniFile& other, const std::string& group);

    /// True when every key of every group of `other` is here with exactly the same value. Always true for a document
    /// without keys.
    bool ContainsSettings(const IniFile& other) const;

    /// The value of a key that is there; the reference is valid as long as the key is. Never allocates.
    /// @throws osa::Exception naming both when the group or the key is missing.
    const std::string& GetValue(const std::string& group, const std::string& key) const;

    /// The value of the key, or an empty string when the group or the key is missing.
    std::string GetValueOrDefault(const std::string& group, const std::string& key) const;

    /// The value as a decimal integer (digits, with a minus sign or none); `def` when the key is missing or its text is
    /// anything else or out of the range of int.
    int GetIntOrDefault(const std::string& group, const std::string& key, int def) const;

    /// The value as a boolean: "true", "yes", "on" and "1", or "false", "no", "off" and "0", in any case of letters;
    /// `def` for anything else and for a missing key.
    bool GetBoolOrDefault(const std::string& group, const std::string& key, bool def) const;

    /// True when the group exists, even if it is empty.
    bool HasGroup(const std::string& group) const { return _groups.contains(group); }

    /// True when the key exists in the group. Never allocates.
    bool HasValue(const std::string& group, const std::string& key) const { return Lookup(group, key) != nullptr; }

    /// Sets one value, creating the group and the key as needed.
    void SetValue(const std::string& group, const std::string& key, const std::string& value);

    /// Sets one value to the decimal text of `value`.
    void SetInt(const std::string& group, const std::string& key, int value);

    /// Treats the group as a list of values: adds `value` under a new key (the next free number, counted from 1) unless
    /// some key of the group holds it already. The group is created if needed.
    void ValueListAppendUnique(const std::string& group, const std::string& value);

    /// The same for each of these values, in their order, at the cost of one walk over the group. Without values
    /// nothing is created.
    void ValueListAppendUnique(const std::string& group, const std::set<std::string>& added);

    /// Removes the group if it is there.
    void RemoveGroup(const std::string& group) { _groups.erase(group); }

    /// Removes the group at an iterator of this document and returns the iterator after it.
    iterator RemoveGroup(iterator group) { return _groups.erase(group); }
    iterator RemoveGroup(const_iterator group) { return _groups.erase(group); }

    /// The keys of the group, created empty if it is missing.
    KeyValueMap& operator[](const std::string& group)
    {
        KeyValueMap* const pKnown = _groups.Lookup(group);  // adding is slower, also where there is nothing to add
        return pKnown != nullptr ? *pKnown : _groups[group];
    }

    /// The keys of a group that is there.
    /// @throws osa::Exception naming the group when it is missing.
    const KeyValueMap& operator[](const std::string& group) const;

    /// True when both hold the same groups with the same keys and values.
    friend bool operator==(const IniFile& left, const IniFile& right) = default;

private:
    const std::string* Lookup(std::string_view group, std::string_view key) const;
    void LoadFromText(std::string_view text, const char* source);
    void MergeGroup(const std::string& name, const KeyValueMap& values);

    GroupMap _groups;
};

}  // namespace korlo::core
