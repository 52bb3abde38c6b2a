#include "server/UserLayerEdit.h"

#include <algorithm>
#include <string>
#include <utility>

#include "server/ErasedGroups.h"

namespace korlo::settings::server
{
namespace
{

using core::IniFile;
using Values = IniFile::KeyValueMap;

/// Adds what comes new into a group.
/// @param pBefore null for a group that is not there.
void AddMerged(const std::string& name, const Values* pBefore, const Values& after, IniFile& merged)
{
    if (pBefore == nullptr)
    {
        merged[name] = after;  // also one without keys
        return;
    }
    Values* pMerged = nullptr;
    for (const auto& [key, value] : after)
    {
        const std::string* const pValue = pBefore->Lookup(key);
        if (pValue == nullptr || *pValue != value)
        {
            pMerged = pMerged == nullptr ? &merged[name] : pMerged;
            pMerged->insert_or_assign(key, value);
        }
    }
}

const Values* ValuesOf(const IniFile& layer, const std::string& name)
{
    const auto group = layer.Find(name);
    return group == layer.end() ? nullptr : &group->second;
}

/// True when a merge into `before` does not make `pAfter` of it.
bool LosesAny(const Values& before, const Values* pAfter)
{
    return pAfter == nullptr || std::any_of(before.begin(), before.end(), [pAfter](const auto& pair) {
               return pAfter->Lookup(pair.first) == nullptr;
           });
}

}  // namespace

UserLayerEdit::UserLayerEdit(const Storage& storage, const IniFile& layer, bool& isLayerDue)
    : _storage(storage),
      _layer(layer),
      _isLayerDue(isLayerDue)
{
    const bool wasLayerDue = std::exchange(isLayerDue, true);
    if (_storage.pChangePersister != nullptr && !wasLayerDue)
    {
        _difference.emplace();
    }
}

void UserLayerEdit::ExpectMerge(const IniFile& changes)
{
    if (_difference)
    {
        for (const auto& [name, values] : changes)
        {
            AddMerged(name, ValuesOf(_layer, name), values, _difference->change.merged);
        }
    }
}

void UserLayerEdit::ExpectReplacement(const GroupNameCollection& removed, const IniFile& added)
{
    if (!_difference)
    {
        return;
    }
    GroupNameCollection& names = _difference->names;
    names = removed;
    for (const auto& [name, values] : added)
    {
        names.insert(name);
    }
    names.insert(ErasedGroups);
    IniFile& before = _difference->before.emplace();
    for (const std::string& name : names)
    {
        before.MergeSettings(_layer, name);
    }
}

UserLayerChange UserLayerEdit::DifferenceOfReplacement() const
{
    UserLayerChange change;
    for (const std::string& name : _difference->names)
    {
        const Values* const pBefore = ValuesOf(*_difference->before, name);
        const Values* const pAfter = ValuesOf(_layer, name);
        const bool isRemoved = pBefore != nullptr && LosesAny(*pBefore, pAfter);
        if (isRemoved)
        {
            change.removed.insert(name);
        }
        if (pAfter != nullptr)
        {
            AddMerged(name, isRemoved ? nullptr : pBefore, *pAfter, change.merged);
        }
    }
    return change;
}

void UserLayerEdit::Save()
{
    if (_difference)
    {
        _storage.pChangePersister->SaveChange(_difference->before ? DifferenceOfReplacement() : _difference->change,
                                              _layer);
    }
    else if (_storage.pPersister != nullptr)
    {
        _storage.pPersister->SaveUserSettings(_layer);
    }
    _isLayerDue = false;
}

}  // namespace korlo::settings::server
