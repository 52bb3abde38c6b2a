#include "server/StoreCounter.h"

namespace korlo::settings::server
{

using core::IniFile;

/// What some groups hold.
///
/// Thread safety: none of its own; the owner guards it.
struct StoreCounter::Amount
{
    std::size_t groups = 0;
    std::size_t keys = 0;
    std::size_t bytes = 0;

    void AddGroup(const std::string& name)
    {
        ++groups;
        bytes += name.size();
    }

    void AddKey(const std::string& key, const std::string& value)
    {
        ++keys;
        bytes += key.size() + value.size();
    }

    void AddKeys(const IniFile::KeyValueMap& values)
    {
        for (const auto& [key, value] : values)
        {
            AddKey(key, value);
        }
    }

    void AddWhole(const IniFile::value_type& group)
    {
        AddGroup(group.first);
        AddKeys(group.second);
    }
};

StoreFigures StoreCounter::GetFigures() const
{
    return {_groups.load(std::memory_order_relaxed), _keys.load(std::memory_order_relaxed),
            _bytes.load(std::memory_order_relaxed), _changes.load(std::memory_order_relaxed)};
}

void StoreCounter::Set(const Amount& amount)
{
    _groups.store(amount.groups, std::memory_order_relaxed);
    _keys.store(amount.keys, std::memory_order_relaxed);
    _bytes.store(amount.bytes, std::memory_order_relaxed);
}

void StoreCounter::Merge(const IniFile& changes, IniFile& settings)
{
    if (settings.empty())
    {
        settings.MergeSettings(changes);  // lays it out compactly
        Recount(settings);
        return;
    }
    Amount amount{_groups, _keys, _bytes};
    for (const auto& [name, values] : changes)
    {
        const std::size_t groupsBefore = settings.size();
        IniFile::KeyValueMap& mine = settings[name];
        if (settings.size() != groupsBefore)
        {
            amount.AddGroup(name);
        }
        if (mine.empty())
        {
            mine = values;  // compactly, too
            amount.AddKeys(values);
            continue;
        }
        for (const auto& [key, value] : values)
        {
            if (std::string* const pValue = mine.Lookup(key))
            {
                amount.bytes += value.size() - pValue->size();
                *pValue = value;
            }
            else
            {
                mine.try_emplace(key, value);
                amount.AddKey(key, value);
            }
        }
    }
    Set(amount);
}

void StoreCounter::CountRemoval(const IniFile& settings, const std::string& group)
{
    const auto present = settings.Find(group);
    if (present != settings.end())
    {
        Amount removed;
        removed.AddWhole(*present);
        Set({_groups - removed.groups, _keys - removed.keys, _bytes - removed.bytes});
    }
}

void StoreCounter::Recount(const IniFile& settings)
{
    Amount amount;
    for (const auto& group : settings)
    {
        amount.AddWhole(group);
    }
    Set(amount);
}

}  // namespace korlo::settings::server
