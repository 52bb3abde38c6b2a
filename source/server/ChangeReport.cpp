#include "server/ChangeReport.h"

#include <string>
#include <string_view>

namespace korlo::settings::server
{
namespace
{

using core::IniFile;
using Values = IniFile::KeyValueMap;

/// Names a group once, with its first key or on its own.
///
/// Thread safety: none of its own; the owner guards it.
class GroupDifference
{
public:
    GroupDifference(ChangedNames& names, std::string_view group) : _names(names), _group(group) {}

    void AddGroup()
    {
        if (!_isAdded)
        {
            _names.AddGroup(_group);
            _isAdded = true;
        }
    }

    void AddKey(std::string_view key)
    {
        AddGroup();
        _names.AddKey(key);
    }

private:
    ChangedNames& _names;
    const std::string_view _group;
    bool _isAdded = false;
};

/// The difference between a group and what a merge makes of it.
void CompareMerged(const Values& before, const Values& changes, GroupDifference& difference)
{
    for (const auto& [key, value] : changes)
    {
        const std::string* const pValue = before.Lookup(key);
        if (pValue == nullptr || *pValue != value)
        {
            difference.AddKey(key);
        }
    }
}

/// The difference between a group and what comes in its place: one walk over both, which are in order.
void CompareReplaced(const Values& before, const Values& after, GroupDifference& difference)
{
    auto left = before.begin();
    auto right = after.begin();
    while (left != before.end() || right != after.end())
    {
        if (right == after.end() || (left != before.end() && left->first < right->first))
        {
            difference.AddKey(left->first);
            ++left;
        }
        else if (left == before.end() || right->first < left->first)
        {
            difference.AddKey(right->first);
            ++right;
        }
        else
        {
            if (left->second != right->second)
            {
                difference.AddKey(left->first);
            }
            ++left;
            ++right;
        }
    }
}

}  // namespace

/// A walk over both kinds of groups, so that their names come in one order.
void ChangeReport::Compare(const IniFile& settings, const GroupNameCollection& removed, const IniFile& added)
{
    const Values none;
    auto gone = removed.begin();
    auto come = added.begin();
    while (gone != removed.end() || come != added.end())
    {
        const bool isGone = gone != removed.end() && (come == added.end() || *gone <= come->first);
        const bool isCome = come != added.end() && (gone == removed.end() || come->first <= *gone);
        const std::string& group = isGone ? *gone : come->first;
        const auto before = settings.Find(group);
        const bool isThere = before != settings.end();
        GroupDifference difference(_names, group);
        if (isThere != (isCome || (isThere && !isGone)))
        {
            difference.AddGroup();  // it comes or goes, be it without a key
        }
        const Values& old = isThere ? before->second : none;
        isGone ? CompareReplaced(old, isCome ? come->second : none, difference)
               : CompareMerged(old, come->second, difference);
        if (isGone)
        {
            ++gone;
        }
        if (isCome)
        {
            ++come;
        }
    }
}

}  // namespace korlo::settings::server
