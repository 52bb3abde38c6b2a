#pragma once
// Group names and '*' patterns, and which groups of a document they select.

#include <cstddef>
#include <iterator>
#include <ostream>
#include <string>
#include <utility>

#include "korlo/core/IniFile.h"
#include "settings/GroupNameCollection.h"

namespace korlo::settings::common
{

/// A set of exact group names and `*` patterns. A value type; an empty matcher selects nothing.
///
///     GroupNameMatcher matcher;
///     matcher.AddNameOrPattern("Network/*");
///     matcher.GetMatchingGroups(document, matched);
///
/// `*` stands for any run of characters, including none; every other character stands for itself.
///
/// Thread safety: none of its own; the owner guards it. Any number of threads may read at once.
class GroupNameMatcher
{
public:
    /// Adds one entry: a pattern if it holds `*`, else an exact name. Adding it twice changes nothing.
    void AddNameOrPattern(const std::string& entry);

    /// Adds every entry of a collection.
    void AddNamesAndPatterns(const GroupNameCollection& entries);

    /// Adds every name and every pattern of `other`.
    void Merge(const GroupNameMatcher& other);

    /// The same without a copy, and so without a way to fail: the entries move, those that are here already stay.
    void Merge(GroupNameMatcher&& other) noexcept;

    /// Adds to `matched` every member of `groups` that is selected; `matched` is not cleared first.
    /// Costs a look-up for each exact name and each pattern, plus the groups that share a pattern's literal prefix.
    void GetMatchingGroups(const GroupNameCollection& groups, GroupNameCollection& matched) const;

    /// The same over the groups of a document.
    void GetMatchingGroups(const core::IniFile& ini, GroupNameCollection& matched) const;

    /// Merges every selected group of `from`, whole, into `into`, which is not cleared first.
    void MergeMatchingGroups(const core::IniFile& from, core::IniFile& into) const;

    /// True when GetMatchingGroups would add anything.
    bool SelectsAny(const GroupNameCollection& groups) const;

    /// The same for a matcher of this one pattern.
    static bool PatternSelectsAny(const std::string& pattern, const GroupNameCollection& groups);
    static bool PatternSelectsAny(const std::string& pattern, const core::IniFile& groups);

    /// Writes groups of `ini` as INI text. This is a walk of its own: it steps through the exact names once, beside the
    /// groups, and an exact name that it passes over while it serves an earlier group is not compared again. So a group
    /// may stay unwritten that GetMatchingGroups would select; a group that a pattern selects is always written.
    void SerializeIni(std::ostream& out, const core::IniFile& ini) const;

    /// True when there is neither a name nor a pattern.
    bool IsEmpty() const { return _names.empty() && _patterns.empty(); }

    /// The exact names.
    const GroupNameCollection& GetNames() const { return _names; }

    /// The patterns.
    const GroupNameCollection& GetPatterns() const { return _patterns; }

private:
    GroupNameCollection _names;     // without '*'
    GroupNameCollection _patterns;  // each holds at least one '*'
};

/// An output iterator that adds each string assigned through it to a matcher.
///
///     std::copy(lines.begin(), lines.end(), GroupNameMatcherInsertIterator(&matcher));
///
/// Thread safety: that of the matcher.
class GroupNameMatcherInsertIterator
{
public:
    /// What an output iterator has to have.
    using iterator_category = std::output_iterator_tag;
    using value_type = void;
    using difference_type = std::ptrdiff_t;
    using pointer = void;
    using reference = void;

    /// @param pMatcher borrowed; must outlive the iterator.
    explicit GroupNameMatcherInsertIterator(GroupNameMatcher* pMatcher) : _pMatcher(pMatcher) {}

    /// Adds the name or pattern.
    GroupNameMatcherInsertIterator& operator=(const std::string& entry)
    {
        _pMatcher->AddNameOrPattern(entry);
        return *this;
    }

    /// Does nothing, as of every such iterator.
    GroupNameMatcherInsertIterator& operator*() { return *this; }
    GroupNameMatcherInsertIterator& operator++() { return *this; }
    GroupNameMatcherInsertIterator operator++(int) { return *this; }

private:
    GroupNameMatcher* _pMatcher;
};

/// Returns the first member of a pair; with std::transform it collects the group names of a document.
template <typename K, typename V>
struct GetFirstFromPairFunctor
{
    /// The reference is into the pair.
    const K& operator()(const std::pair<const K, V>& pair) const { return pair.first; }
};

/// The names of all groups of a document.
GroupNameCollection GroupNamesOf(const core::IniFile& ini);

}  // namespace korlo::settings::common
