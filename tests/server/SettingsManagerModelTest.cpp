// The store beside a naive model of it, over random sequences of operations.
#include "settings/server/SettingsManager.h"

#include <algorithm>
#include <map>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "korlo/core/StringUtil.h"
#include "support/Callbacks.h"
#include "support/Documents.h"
#include "support/RecordingPersister.h"

namespace korlo::settings::server
{
namespace
{

using common::GroupNameMatcher;
using core::IniFile;

using Groups = std::map<std::string, std::map<std::string, std::string>>;

const std::string DeletedGroups = "KorloSettings/Data/DeletedGroups";

Groups ToMap(const IniFile& ini)
{
    Groups groups;
    for (const auto& [name, values] : ini)
    {
        groups[name];
        for (const auto& [key, value] : values)
        {
            groups[name][key] = value;
        }
    }
    return groups;
}

void Merge(Groups& target, const Groups& source)
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

bool IsRestricted(const std::string& name)
{
    return name.find("Secure") != std::string::npos || name.find("Trusted") != std::string::npos;
}

Groups Unrestricted(Groups groups)
{
    std::erase_if(groups, [](const auto& group) { return IsRestricted(group.first); });
    return groups;
}

bool IsSelected(const GroupNameCollection& entries, const std::string& name)
{
    return std::any_of(entries.begin(), entries.end(),
                       [&name](const std::string& entry) { return core::StringUtil::MatchesPattern(entry, name); });
}

Groups Selected(const GroupNameCollection& entries, Groups groups)
{
    std::erase_if(groups, [&entries](const auto& group) { return !IsSelected(entries, group.first); });
    return groups;
}

/// The store as plain maps. What an operation announces is what it returns.
class Model
{
public:
    struct Announcement
    {
        GroupNameCollection groups;
        Groups settings;
    };

    Model(Groups defaults, Groups restricted) : _defaults(std::move(defaults)), _restricted(std::move(restricted))
    {
        Load();
    }

    /// As a new store over what was saved.
    void Load()
    {
        user = Unrestricted(saved);
        GroupNameCollection erased;
        if (user.contains(DeletedGroups))
        {
            for (const auto& [key, value] : user[DeletedGroups])
            {
                erased.insert(value);
            }
        }
        settings = _defaults;
        for (const auto& [name, values] : Selected(erased, settings))
        {
            settings.erase(name);
        }
        Merge(settings, user);
        settings = Unrestricted(settings);
        Merge(settings, _restricted);
        settings.erase(DeletedGroups);
    }

    Announcement MergeSettings(const Groups& changes, bool persist)
    {
        const Groups accepted = Unrestricted(changes);
        Merge(settings, accepted);
        if (persist)
        {
            Merge(user, accepted);
            saved = user;
        }
        return {NamesOf(accepted), accepted};
    }

    bool Contains(const Groups& expected) const
    {
        Groups merged = settings;
        for (const auto& [name, values] : expected)
        {
            for (const auto& [key, value] : values)
            {
                merged[name][key] = value;
            }
        }
        return merged == settings;
    }

    Announcement Overwrite(const GroupNameCollection& entries, const Groups& replacement)
    {
        const Groups accepted = Unrestricted(replacement);
        GroupNameCollection changed = NamesOf(Unrestricted(Selected(entries, settings)));
        for (const std::string& name : changed)
        {
            settings.erase(name);
            user.erase(name);
        }
        Merge(settings, accepted);
        Merge(user, accepted);
        for (const std::string& entry : entries)
        {
            Record(entry);
        }
        saved = user;
        changed.merge(NamesOf(accepted));
        return {changed, accepted};
    }

    Announcement Restore(const GroupNameCollection& entries)
    {
        GroupNameCollection changed = NamesOf(Selected(entries, user));
        for (const std::string& name : changed)
        {
            settings.erase(name);
            user.erase(name);
        }
        const Groups restored = Selected(entries, _defaults);
        Merge(settings, restored);
        Merge(user, restored);
        saved = user;
        changed.merge(NamesOf(restored));
        return {changed, restored};
    }

    Groups saved;
    Groups user;
    Groups settings;

private:
    static GroupNameCollection NamesOf(const Groups& groups)
    {
        GroupNameCollection names;
        for (const auto& [name, values] : groups)
        {
            names.insert(name);
        }
        return names;
    }

    void Record(const std::string& entry)
    {
        std::map<std::string, std::string>& record = user[DeletedGroups];
        const bool isThere =
            std::any_of(record.begin(), record.end(), [&entry](const auto& pair) { return pair.second == entry; });
        if (!isThere)
        {
            record[std::to_string(record.size() + 1)] = entry;
        }
    }

    const Groups _defaults;
    const Groups _restricted;
};

/// Random pieces of documents and selections over a few names, so that they meet often.
class Source
{
public:
    explicit Source(unsigned int seed) : _random(seed) {}

    unsigned int Below(unsigned int limit) { return static_cast<unsigned int>(_random() % limit); }

    template <typename Container>
    const std::string& OneOf(const Container& container)
    {
        return container[Below(static_cast<unsigned int>(container.size()))];
    }

    IniFile Document()
    {
        IniFile ini;
        for (unsigned int groups = Below(4); groups > 0; --groups)
        {
            IniFile::KeyValueMap& values = ini[OneOf(_names)];
            for (unsigned int keys = Below(3); keys > 0; --keys)
            {
                values[OneOf(_keys)] = OneOf(_values);
            }
        }
        return ini;
    }

    GroupNameCollection Selection()
    {
        GroupNameCollection entries;
        for (unsigned int count = Below(3); count > 0; --count)
        {
            entries.insert(Below(2) == 0 ? OneOf(_names) : OneOf(_patterns));
        }
        return entries;
    }

private:
    std::mt19937 _random;
    const std::vector<std::string> _names = {"A", "B", "A/x", "A/y", "Secure/k", "A/Trusted", ""};
    const std::vector<std::string> _patterns = {"A*", "A/*", "*x", "*", "B*", "Secure*"};
    const std::vector<std::string> _keys = {"k", "l", "m"};
    const std::vector<std::string> _values = {"", "1", "2"};
};

/// A store and its model, side by side.
class Pair
{
public:
    explicit Pair(unsigned int seed) : _source(seed)
    {
        _persister.defaults = {_source.Document(), _source.Document()};
        _loader.documents = {_source.Document()};
        IniFile defaults = _persister.defaults[0];
        defaults.MergeSettings(_persister.defaults[1]);
        _pModel = std::make_unique<Model>(ToMap(defaults), ToMap(_loader.documents[0]));
        Reload();
    }

    void Step()
    {
        switch (_source.Below(6))
        {
        case 0:
            return Reload();
        case 1:
            return TestAndMerge();
        case 2:
            return Overwrite();
        case 3:
            return Restore();
        default:
            return MergeSettings();
        }
    }

    void Compare() const
    {
        IniFile all;
        _pStore->GetGroups(all, "*");
        ASSERT_EQ(ToMap(all), _pModel->settings);
        std::ostringstream user;
        _pStore->DumpUserSettings(user);
        ASSERT_EQ(ToMap(Ini(user.str())), _pModel->user);
        ASSERT_EQ(ToMap(_persister.user), _pModel->saved);

        const std::vector<Change> changes = _pCallback->GetChanges();
        ASSERT_EQ(changes.size(), _announced.size());
        for (std::size_t i = 0; i < changes.size(); ++i)
        {
            ASSERT_EQ(changes[i].groups, _announced[i].groups);
            ASSERT_EQ(ToMap(changes[i].settings), _announced[i].settings);
        }
    }

private:
    void Reload()
    {
        _pStore = std::make_unique<SettingsManager>(&_persister, &_loader, nullptr, false);
        _pCallback = std::make_unique<RecordingCallback>();
        _pStore->Subscribe(_pCallback.get(), "*");
        _announced.clear();
        _pModel->Load();
    }

    void Announce(const Model::Announcement& announcement)
    {
        if (!announcement.groups.empty())
        {
            _announced.push_back(announcement);
        }
    }

    void MergeSettings()
    {
        const IniFile changes = _source.Document();
        const unsigned int flags = _source.Below(4);
        _pStore->MergeSettings(changes, flags);
        Announce(_pModel->MergeSettings(ToMap(changes), flags % 2 == 0));
    }

    void TestAndMerge()
    {
        const IniFile expected = _source.Document();
        const IniFile changes = _source.Document();
        const bool contains = _pModel->Contains(ToMap(expected));
        EXPECT_EQ(_pStore->TestAndMerge(expected, changes), contains);
        if (contains)
        {
            Announce(_pModel->MergeSettings(ToMap(changes), true));
        }
    }

    void Overwrite()
    {
        const GroupNameCollection entries = _source.Selection();
        const IniFile replacement = _source.Document();
        _pStore->OverwriteSettings(entries, replacement);
        Announce(_pModel->Overwrite(entries, ToMap(replacement)));
    }

    void Restore()
    {
        const GroupNameCollection entries = _source.Selection();
        GroupNameMatcher matcher;
        matcher.AddNamesAndPatterns(entries);
        _pStore->RestoreToDefaults(matcher);
        Announce(_pModel->Restore(entries));
    }

    Source _source;
    RecordingPersister _persister;
    RecordingRestrictedLoader _loader;
    std::unique_ptr<Model> _pModel;
    std::unique_ptr<RecordingCallback> _pCallback;
    std::unique_ptr<SettingsManager> _pStore;
    std::vector<Model::Announcement> _announced;
};

TEST(SettingsManagerModelTest, AgreesWithANaiveModelOverRandomSequences)
{
    for (unsigned int seed = 1; seed <= 300; ++seed)
    {
        Pair pair(seed);
        for (int step = 0; step < 30; ++step)
        {
            SCOPED_TRACE("seed " + std::to_string(seed) + ", step " + std::to_string(step));
            pair.Step();
            pair.Compare();
            if (HasFailure())
            {
                return;
            }
        }
    }
}

}  // namespace
}  // namespace korlo::settings::server
