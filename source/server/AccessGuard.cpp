#include "server/AccessGuard.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <utility>
#include <vector>

#include "server/ErasedGroups.h"
#include "settings/server/GroupDiscriminator.h"

namespace korlo::settings::server
{
namespace
{

using core::IniFile;

/// Adds the groups of a change that the client may not change.
void AddUnchangeable(const IAccessRights& rights, const IniFile& changes, GroupNameCollection& refused)
{
    for (const auto& [group, values] : changes)
    {
        if (refused.size() >= AccessGuard::MostRefusedNames)
        {
            return;
        }
        if (!GroupDiscriminator::IsRestrictedGroup(group) && !rights.MayChange(group))
        {
            refused.insert(group);
        }
    }
}

/// Adds the entries that reach further than the client may change.
void AddUnchangeable(const IAccessRights& rights, const GroupNameCollection& namesAndPatterns,
                     GroupNameCollection& refused)
{
    for (auto entry = namesAndPatterns.begin();
         entry != namesAndPatterns.end() && refused.size() < AccessGuard::MostRefusedNames; ++entry)
    {
        if (!rights.MayChangeAllOf(*entry))
        {
            refused.insert(*entry);
        }
    }
}

/// False for the record of erased groups, too: some of its entries may have to be hidden.
bool IsReadableWhole(const IAccessRights& rights, const std::string& group)
{
    return group != ErasedGroups && rights.MayRead(group);
}

/// Adds the groups of a test that would tell the client what it may not read.
void AddUntestable(const IAccessRights& rights, const IniFile& expected, GroupNameCollection& refused)
{
    for (auto group = expected.begin(); group != expected.end() && refused.size() < AccessGuard::MostRefusedNames;
         ++group)
    {
        if (!IsReadableWhole(rights, group->first))
        {
            refused.insert(group->first);
        }
    }
}

/// Numbers count the order in which groups were erased: "10" comes after "2". Numbering by the order of the texts would
/// tell how many entries are hidden.
bool IsErasedBefore(const std::string& left, const std::string& right)
{
    return left.size() != right.size() ? left.size() < right.size() : left < right;
}

void HideErasedGroups(const IAccessRights& rights, IniFile& settings)
{
    const auto record = settings.Find(ErasedGroups);
    if (record == settings.end())
    {
        return;
    }
    std::vector<std::pair<std::string, std::string>> visible;
    for (const auto& [number, entry] : record->second)
    {
        if (rights.MayReadAllOf(entry))
        {
            visible.emplace_back(number, entry);
        }
    }
    std::sort(visible.begin(), visible.end(),
              [](const auto& left, const auto& right) { return IsErasedBefore(left.first, right.first); });
    settings.RemoveGroup(record);
    for (std::size_t index = 0; index < visible.size(); ++index)
    {
        settings.SetValue(ErasedGroups, std::to_string(index + 1), visible[index].second);
    }
}

/// A walk over several sets of names in one order.
///
/// Thread safety: none of its own; the owner guards it.
class NameWalk
{
public:
    /// @param sets borrowed.
    explicit NameWalk(const std::array<const GroupNameCollection*, 3>& sets)
    {
        std::transform(sets.begin(), sets.end(), _rests.begin(), [](const GroupNameCollection* pSet) {
            return Rest{pSet->begin(), pSet->end()};
        });
    }

    /// Adds what comes before the name.
    void AddBefore(const std::string& name, ChangedNames& names)
    {
        for (const std::string* pFirst = First(); pFirst != nullptr && *pFirst < name; pFirst = First())
        {
            names.AddGroup(*pFirst);
            Skip(*pFirst);
        }
    }

    void AddRest(ChangedNames& names)
    {
        for (const std::string* pFirst = First(); pFirst != nullptr; pFirst = First())
        {
            names.AddGroup(*pFirst);
            Skip(*pFirst);
        }
    }

    /// Steps over the name where it comes next. False where it does in none.
    bool Skip(const std::string& name)
    {
        bool isSkipped = false;
        for (Rest& rest : _rests)
        {
            if (rest.next != rest.end && *rest.next == name)
            {
                ++rest.next;
                isSkipped = true;
            }
        }
        return isSkipped;
    }

private:
    struct Rest
    {
        GroupNameCollection::const_iterator next;
        GroupNameCollection::const_iterator end;
    };

    /// Null at the end of all.
    const std::string* First() const
    {
        const std::string* pFirst = nullptr;
        for (const Rest& rest : _rests)
        {
            if (rest.next != rest.end && (pFirst == nullptr || *rest.next < *pFirst))
            {
                pFirst = &*rest.next;
            }
        }
        return pFirst;
    }

    std::array<Rest, 3> _rests;
};

}  // namespace

AccessGuard::AccessGuard(IClientAccess* pAccess, IChangeObserver* pObserver, const ChangeOrigin* pOrigin)
    : _pAccess(pAccess != nullptr ? pAccess : &_fullAccess),
      _pObserver(pObserver),
      _pOrigin(pOrigin)
{
}

bool AccessGuard::ReadsAsAsked(const IAccessRights& rights, const common::GroupNameMatcher& matcher) const
{
    const GroupNameCollection& names = matcher.GetNames();
    if (_refused && names.contains(RefusedGroup))
    {
        return false;
    }
    return rights.MayReadEverything() || (matcher.GetPatterns().empty() &&
                                          std::all_of(names.begin(), names.end(), [&rights](const std::string& name) {
                                              return IsReadableWhole(rights, name);
                                          }));
}

void AccessGuard::Answer(const IAccessRights& rights, const common::GroupNameMatcher& matcher, IniFile& settings)
{
    HideUnreadable(rights, settings);
    if (_refused && matcher.GetNames().contains(RefusedGroup))
    {
        settings[RefusedGroup] = std::move(*_refused);
        _refused.reset();
    }
}

void AccessGuard::HideUnreadable(const IAccessRights& rights, IniFile& settings)
{
    if (rights.MayReadEverything())
    {
        return;
    }
    for (auto group = settings.begin(); group != settings.end();)
    {
        group = rights.MayRead(group->first) ? std::next(group) : settings.RemoveGroup(group);
    }
    HideErasedGroups(rights, settings);
}

bool AccessGuard::MayHearOf(const IAccessRights& rights, const std::string& group)
{
    return rights.MayReadEverything() || IsReadableWhole(rights, group);
}

bool AccessGuard::AllowsMerge(const char* operation, const IniFile& changes)
{
    const Rights pRights = GetRights();
    GroupNameCollection refused;
    if (!pRights->MayChangeEverything())
    {
        AddUnchangeable(*pRights, changes, refused);
    }
    return Allows({operation, &changes}, refused);
}

bool AccessGuard::AllowsTestAndMerge(const IniFile& expected, const IniFile& changes)
{
    const Rights pRights = GetRights();
    GroupNameCollection refused;
    if (!pRights->MayChangeEverything())
    {
        AddUnchangeable(*pRights, changes, refused);
    }
    if (!pRights->MayReadEverything())
    {
        AddUntestable(*pRights, expected, refused);
    }
    return Allows({operation::TestAndMerge, &changes}, refused);
}

bool AccessGuard::AllowsOverwrite(const GroupNameCollection& namesAndPatterns, const IniFile& replacement)
{
    const Rights pRights = GetRights();
    GroupNameCollection refused;
    if (!pRights->MayChangeEverything())
    {
        AddUnchangeable(*pRights, namesAndPatterns, refused);
        AddUnchangeable(*pRights, replacement, refused);
    }
    return Allows({operation::Overwrite, &replacement, &namesAndPatterns}, refused);
}

bool AccessGuard::AllowsRestore(const common::GroupNameMatcher& namesAndPatterns)
{
    const Rights pRights = GetRights();
    GroupNameCollection refused;
    if (!pRights->MayChangeEverything())
    {
        AddUnchangeable(*pRights, namesAndPatterns.GetNames(), refused);
        AddUnchangeable(*pRights, namesAndPatterns.GetPatterns(), refused);
    }
    return Allows({operation::Restore, nullptr, &namesAndPatterns.GetNames(), &namesAndPatterns.GetPatterns()},
                  refused);
}

bool AccessGuard::Allows(const Request& request, const GroupNameCollection& refused)
{
    if (refused.empty())
    {
        return true;
    }
    if (!_refused)
    {
        KeepFirst(request.operation, refused);
    }
    _pAccess->OnRefused(request.operation, refused);
    if (_pObserver != nullptr)
    {
        Report(request, refused);
    }
    return false;
}

void AccessGuard::KeepFirst(const char* operation, const GroupNameCollection& refused)
{
    _refused.emplace();
    (*_refused)[common::RefusedOperationKey] = operation;
    std::size_t number = 0;
    std::size_t bytes = 0;
    for (const std::string& name : refused)
    {
        if (bytes + name.size() <= MostRefusedBytes)
        {
            bytes += name.size();
            (*_refused)[common::RefusedNameKey + std::to_string(++number)] = name;
        }
    }
}

/// Tells the observer what was asked for: all entries and groups, each once and in one order, and the keys of the
/// document. Restricted groups of a document were not refused, but dropped. Of a test only what was refused counts.
void AccessGuard::Report(const Request& request, const GroupNameCollection& refused) const
{
    const GroupNameCollection none;
    const IniFile nothing;
    NameWalk walk({&refused, request.pEntries != nullptr ? request.pEntries : &none,
                   request.pMoreEntries != nullptr ? request.pMoreEntries : &none});
    const IniFile& changes = request.pChanges != nullptr ? *request.pChanges : nothing;
    ChangedNames names;
    for (const auto& [group, values] : changes)
    {
        walk.AddBefore(group, names);
        if (walk.Skip(group) || !GroupDiscriminator::IsRestrictedGroup(group))
        {
            names.AddGroup(group);
            std::ranges::for_each(values, [&names](const auto& pair) { names.AddKey(pair.first); });
        }
    }
    walk.AddRest(names);
    _pObserver->OnChange(_pOrigin, request.operation, ChangeOutcome::Refused, names);
}

}  // namespace korlo::settings::server
