#pragma once
// The settings store as one would first write it down: plain maps, every rule a loop, nothing shared and nothing fast.

#include <algorithm>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "korlo/core/IniFile.h"
#include "korlo/core/StringUtil.h"
#include "settings/GroupNameCollection.h"

namespace korlo::settings::server
{

using Values = std::map<std::string, std::string>;
using Groups = std::map<std::string, Values>;

inline Groups ToMap(const core::IniFile& ini)
{
    Groups groups;
    for (const auto& [name, values] : ini)
    {
        Values& copy = groups[name];
        for (const auto& [key, value] : values)
        {
            copy[key] = value;
        }
    }
    return groups;
}

inline core::IniFile ToIni(const Groups& groups)
{
    core::IniFile ini;
    for (const auto& [name, values] : groups)
    {
        core::IniFile::KeyValueMap& copy = ini[name];
        for (const auto& [key, value] : values)
        {
            copy[key] = value;
        }
    }
    return ini;
}

inline GroupNameCollection NamesOf(const Groups& groups)
{
    GroupNameCollection names;
    for (const auto& [name, values] : groups)
    {
        names.insert(name);
    }
    return names;
}

/// Everything that the store does with what it is given: its documents, what it asks of its storage, what it announces.
///
///     StoreModel model({{"A", {{"k", "1"}}}}, {});
///     const auto announced = model.Merge({{"A", {{"k", "2"}}}}, true);
///
/// Thread safety: none of its own; the owner guards it.
class StoreModel
{
public:
    /// What subscribers hear of a change.
    struct Announcement
    {
        GroupNameCollection groups;
        Groups settings;

        friend bool operator==(const Announcement& left, const Announcement& right) = default;
    };

    /// A store that is loaded from these documents, each later one overriding the earlier ones.
    StoreModel(std::vector<Groups> defaults, std::vector<Groups> restricted)
        : _defaults(std::move(defaults)),
          _restricted(std::move(restricted))
    {
    }

    /// Every document loses the groups of these names before anything else is done with it.
    void Exclude(const GroupNameCollection& names) { _excluded = names; }

    /// As a new store over what was saved.
    void Load()
    {
        _claims.clear();
        settings = FilteredDefaults();
        calls.push_back("load user settings");
        user = Unrestricted(saved);
        for (const auto& [key, pattern] : user.contains(ErasedGroups) ? user[ErasedGroups] : Values{})
        {
            Erase(settings, Selected({pattern}, settings));
        }
        MergeInto(settings, user);
        settings = Unrestricted(settings);
        calls.push_back("load restricted settings");
        MergeInto(settings, Filtered(_restricted));
        settings.erase(ErasedGroups);
    }

    /// Without an announcement when the save fails: the change is then made all the same.
    std::optional<Announcement> Merge(const Groups& changes, bool persist, bool saveFails = false)
    {
        const Groups accepted = Unrestricted(changes);
        MergeInto(settings, accepted);
        if (persist)
        {
            MergeInto(user, accepted);
            if (!Save(saveFails))
            {
                return std::nullopt;
            }
        }
        return Announcement{NamesOf(accepted), accepted};
    }

    bool Contains(const Groups& expected) const
    {
        for (const auto& [name, values] : expected)
        {
            for (const auto& [key, value] : values)
            {
                const auto group = settings.find(name);
                if (group == settings.end() || !group->second.contains(key) || group->second.at(key) != value)
                {
                    return false;
                }
            }
        }
        return true;
    }

    std::optional<Announcement> Overwrite(const GroupNameCollection& entries, const Groups& replacement,
                                          bool saveFails = false)
    {
        const Groups accepted = Unrestricted(replacement);
        const Groups erased = Unrestricted(Selected(entries, settings));
        Erase(settings, erased);
        Erase(user, erased);
        MergeInto(settings, accepted);
        MergeInto(user, accepted);
        for (const std::string& entry : entries)
        {
            RecordAsErased(entry);
        }
        if (!Save(saveFails))
        {
            return std::nullopt;
        }
        return Announcement{Union(erased, accepted), accepted};
    }

    std::optional<Announcement> Restore(const GroupNameCollection& entries, bool saveFails = false)
    {
        const Groups restored = Selected(entries, FilteredDefaults());
        const Groups removed = Selected(entries, user);
        Erase(settings, removed);
        Erase(user, removed);
        MergeInto(settings, restored);
        MergeInto(user, restored);
        if (!Save(saveFails))
        {
            return std::nullopt;
        }
        return Announcement{Union(removed, restored), restored};
    }

    static bool IsSelected(const GroupNameCollection& entries, const std::string& name)
    {
        return std::any_of(entries.begin(), entries.end(),
                           [&name](const std::string& entry) { return core::StringUtil::MatchesPattern(entry, name); });
    }

    static Groups Selected(const GroupNameCollection& entries, Groups groups)
    {
        std::erase_if(groups, [&entries](const auto& group) { return !IsSelected(entries, group.first); });
        return groups;
    }

    Groups settings;
    Groups user;
    Groups saved;
    std::vector<std::string> calls;  // what storage was asked for, in that order, with failed saves too

    static constexpr const char* ErasedGroups = "KorloSettings/Data/DeletedGroups";
    static constexpr const char* Claims = "KorloSettings/LoadPriority";

private:
    static bool IsRestricted(const std::string& name)
    {
        return name.find("Secure") != std::string::npos || name.find("Trusted") != std::string::npos;
    }

    static Groups Unrestricted(Groups groups)
    {
        std::erase_if(groups, [](const auto& group) { return IsRestricted(group.first); });
        return groups;
    }

    static void MergeInto(Groups& target, const Groups& source)
    {
        for (const auto& [name, values] : source)
        {
            target[name];
            for (const auto& [key, value] : values)
            {
                target[name][key] = value;
            }
        }
    }

    static void Erase(Groups& target, const Groups& erased)
    {
        std::erase_if(target, [&erased](const auto& group) { return erased.contains(group.first); });
    }

    static GroupNameCollection Union(const Groups& left, const Groups& right)
    {
        Groups both = left;
        MergeInto(both, right);
        return NamesOf(both);
    }

    Groups FilteredDefaults()
    {
        calls.push_back("load defaults");
        return Filtered(_defaults);
    }

    /// What the filters leave of the documents, merged.
    Groups Filtered(const std::vector<Groups>& documents)
    {
        Groups layer;
        for (Groups document : documents)
        {
            for (const std::string& name : _excluded)
            {
                document.erase(name);
            }
            DropClaimed(document);
            MergeInto(layer, document);
        }
        return layer;
    }

    /// Takes out of the document what an earlier one claimed more strongly, and remembers its own claims.
    void DropClaimed(Groups& document)
    {
        std::map<std::string, int> declared;
        for (const auto& [name, text] : document.contains(Claims) ? document[Claims] : Values{})
        {
            int priority = 0;
            if (core::StringUtil::TryParse(text, priority) && !IsRestricted(name))
            {
                declared[name] = priority;
            }
        }
        std::erase_if(document, [&](const auto& group) {
            const std::string& name = group.first;
            return _claims.contains(name) && !(declared.contains(name) && declared[name] >= _claims[name]);
        });
        for (const auto& [name, priority] : declared)
        {
            _claims[name] = _claims.contains(name) ? std::max(_claims[name], priority) : priority;
        }
        document.erase(Claims);
    }

    /// Under a key that is free: the next number.
    void RecordAsErased(const std::string& entry)
    {
        Values& record = user[ErasedGroups];
        if (std::any_of(record.begin(), record.end(), [&entry](const auto& pair) { return pair.second == entry; }))
        {
            return;
        }
        std::size_t number = record.size() + 1;
        while (record.contains(std::to_string(number)))
        {
            ++number;
        }
        record[std::to_string(number)] = entry;
    }

    bool Save(bool fails)
    {
        calls.push_back("save");
        if (!fails)
        {
            saved = user;
        }
        return !fails;
    }

    const std::vector<Groups> _defaults;
    const std::vector<Groups> _restricted;
    GroupNameCollection _excluded;
    std::map<std::string, int> _claims;  // the highest ever declared, as long as the store lives
};

}  // namespace korlo::settings::server
