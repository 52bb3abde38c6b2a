#include "settings/common/GroupNameMatcher.h"

#include <algorithm>
#include <iterator>

#include "korlo/core/StringUtil.h"

namespace korlo::settings::common
{
namespace
{

using core::IniFile;
using core::StringUtil;

// One way to look at both things that groups are selected from, so that the selection is written once. A document's
// names are read in place: copying them would make every operation pay for groups that it does not touch.

const std::string& NameOf(const std::string& name)
{
    return name;
}

const std::string& NameOf(const IniFile::value_type& group)
{
    return group.first;
}

auto LowerBound(const GroupNameCollection& groups, const std::string& name)
{
    return groups.lower_bound(name);
}

auto LowerBound(const IniFile& groups, const std::string& name)
{
    return groups.LowerBound(name);
}

bool Contains(const GroupNameCollection& groups, const std::string& name)
{
    return groups.contains(name);
}

bool Contains(const IniFile& groups, const std::string& name)
{
    return groups.HasGroup(name);
}

/// Calls `select` with each common name until it returns false. Looks the smaller side's names up in the other.
template <typename Groups, typename Select>
bool SelectByName(const Groups& groups, const GroupNameCollection& names, const Select& select)
{
    if (names.size() <= groups.size())
    {
        for (const std::string& name : names)
        {
            if (Contains(groups, name) && !select(name))
            {
                return false;
            }
        }
        return true;
    }
    for (const auto& group : groups)
    {
        if (names.contains(NameOf(group)) && !select(NameOf(group)))
        {
            return false;
        }
    }
    return true;
}

/// Calls `select` with each group that the pattern matches until it returns false. Only the groups that begin with the
/// pattern's literal prefix are looked at.
template <typename Groups, typename Select>
bool SelectByPattern(const Groups& groups, const std::string& pattern, const Select& select)
{
    const std::string prefix = pattern.substr(0, pattern.find('*'));
    for (auto group = LowerBound(groups, prefix); group != groups.end(); ++group)
    {
        const std::string& name = NameOf(*group);
        if (!StringUtil::StartsWith(name, prefix))
        {
            break;
        }
        if (StringUtil::MatchesPattern(pattern, name) && !select(name))
        {
            return false;
        }
    }
    return true;
}

template <typename Groups, typename Select>
bool SelectFrom(const Groups& groups, const GroupNameCollection& names, const GroupNameCollection& patterns,
                const Select& select)
{
    if (!SelectByName(groups, names, select))
    {
        return false;
    }
    for (const std::string& pattern : patterns)
    {
        if (!SelectByPattern(groups, pattern, select))
        {
            return false;
        }
    }
    return true;
}

}  // namespace

void GroupNameMatcher::AddNameOrPattern(const std::string& entry)
{
    (entry.find('*') == std::string::npos ? _names : _patterns).insert(entry);
}

void GroupNameMatcher::AddNamesAndPatterns(const GroupNameCollection& entries)
{
    for (const std::string& entry : entries)
    {
        AddNameOrPattern(entry);
    }
}

void GroupNameMatcher::Merge(const GroupNameMatcher& other)
{
    _names.insert(other._names.begin(), other._names.end());
    _patterns.insert(other._patterns.begin(), other._patterns.end());
}

void GroupNameMatcher::Merge(GroupNameMatcher&& other) noexcept
{
    _names.merge(other._names);
    _patterns.merge(other._patterns);
}

void GroupNameMatcher::GetMatchingGroups(const GroupNameCollection& groups, GroupNameCollection& matched) const
{
    SelectFrom(groups, _names, _patterns, [&matched](const std::string& name) {
        matched.insert(name);
        return true;
    });
}

void GroupNameMatcher::GetMatchingGroups(const IniFile& ini, GroupNameCollection& matched) const
{
    SelectFrom(ini, _names, _patterns, [&matched](const std::string& name) {
        matched.insert(name);
        return true;
    });
}

void GroupNameMatcher::MergeMatchingGroups(const IniFile& from, IniFile& into) const
{
    GroupNameCollection matched;
    GetMatchingGroups(from, matched);
    for (const std::string& group : matched)
    {
        into.MergeSettings(from, group);
    }
}

bool GroupNameMatcher::SelectsAny(const GroupNameCollection& groups) const
{
    return !SelectFrom(groups, _names, _patterns, [](const std::string&) { return false; });
}

bool GroupNameMatcher::PatternSelectsAny(const std::string& pattern, const GroupNameCollection& groups)
{
    return !SelectByPattern(groups, pattern, [](const std::string&) { return false; });
}

bool GroupNameMatcher::PatternSelectsAny(const std::string& pattern, const IniFile& groups)
{
    return !SelectByPattern(groups, pattern, [](const std::string&) { return false; });
}

void GroupNameMatcher::SerializeIni(std::ostream& out, const IniFile& ini) const
{
    auto cursor = _names.begin();
    for (const auto& [group, values] : ini)
    {
        // The cursor steps past every name that it compares, also past one that is greater than the group and might
        // have selected a later one. Readers of this text have come to rely on what it leaves out.
        int order = -1;
        while (order < 0 && cursor != _names.end())
        {
            order = cursor->compare(group);
            ++cursor;
        }
        const bool named = order == 0;
        const auto matches = [&name = group](const std::string& pattern) {
            return StringUtil::MatchesPattern(pattern, name);
        };
        if (named || std::any_of(_patterns.begin(), _patterns.end(), matches))
        {
            ini.SaveGroupToStream(out, group);
        }
    }
}

GroupNameCollection GroupNamesOf(const IniFile& ini)
{
    GroupNameCollection names;
    std::transform(ini.begin(), ini.end(), std::inserter(names, names.end()),
                   GetFirstFromPairFunctor<std::string, IniFile::KeyValueMap>());
    return names;
}

}  // namespace korlo::settings::common
