// What the store tells its observer.

#include "settings/server/IChangeObserver.h"

#include <atomic>
#include <random>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>

#include "korlo/osa/Exception.h"
#include "settings/server/ClientHandler.h"
#include "settings/server/SerializationManager.h"
#include "settings/server/SettingsManager.h"
#include "support/Documents.h"
#include "support/FakeAccess.h"
#include "support/RecordingObserver.h"
#include "support/RecordingPersister.h"

namespace korlo::settings::server
{
namespace
{

using core::IniFile;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr unsigned int NoPersist = SettingsManager::DoNotPersist;

/// A store of a few groups, observed.
class ChangeObserverTest : public testing::Test
{
protected:
    ChangeObserverTest()
    {
        _persister.defaults = {Ini("[Audio]\nvolume=40\nbalance=0\n[Display]\nbrightness=70\n")};
        _loader.documents = {Ini("[WifiSecure]\nkey=secret\n")};
        _store.LoadSettings();
        _store.SetChangeObserver(&_observer);
    }

    RecordingPersister _persister;
    RecordingRestrictedLoader _loader;
    SettingsManager _store{&_persister, &_loader, nullptr, true};
    RecordingObserver _observer;
};

TEST_F(ChangeObserverTest, AMergeTellsTheKeysWhoseValuesAreNew)
{
    _store.MergeSettings(Ini("[Audio]\nvolume=65\nbalance=0\ntreble=1\n[Display]\nbrightness=70\n[New]\nk=v\n"), 0);
    EXPECT_THAT(_observer.TakeNames(), ElementsAre("[Audio]treble", "[Audio]volume", "[New]k"));
}

TEST_F(ChangeObserverTest, WhatAltersNothingIsNotTold)
{
    _store.MergeSettings(Ini("[Audio]\nvolume=40\n"), 0);
    _store.MergeSettings(Ini("[Audio]\n"), 0);
    _store.MergeSettings(Ini(""), NoPersist);
    _store.MergeSettings(Ini("[WifiSecure]\nkey=other\n"), 0);
    _store.OverwriteSettings("Nothing", Ini(""));
    _store.OverwriteSettings("Audio", Ini("[Audio]\nvolume=40\nbalance=0\n"));
    EXPECT_THAT(_observer.Take(), IsEmpty());
}

TEST_F(ChangeObserverTest, ANewGroupWithoutKeysIsTold)
{
    _store.MergeSettings(Ini("[New]\n"), 0);
    EXPECT_THAT(_observer.TakeNames(), ElementsAre("[New]"));
    _store.OverwriteSettings("New", Ini(""));
    EXPECT_THAT(_observer.TakeNames(), ElementsAre("[New]"));
}

TEST_F(ChangeObserverTest, ValuesCountAsClientsReadThem)
{
    _store.MergeSettings(Ini("[Audio]\nvolume=65\n"), NoPersist);
    EXPECT_THAT(_observer.TakeNames(), ElementsAre("[Audio]volume"));
    _store.MergeSettings(Ini("[Audio]\nvolume=65\n"), 0);
    EXPECT_THAT(_observer.Take(), IsEmpty());
}

TEST_F(ChangeObserverTest, ATestThatFailsIsNotTold)
{
    EXPECT_FALSE(_store.TestAndMerge(Ini("[Audio]\nvolume=1\n"), Ini("[Audio]\nvolume=2\n")));
    EXPECT_THAT(_observer.Take(), IsEmpty());
    EXPECT_TRUE(_store.TestAndMerge(Ini("[Audio]\nvolume=40\n"), Ini("[Audio]\nvolume=2\n")));
    EXPECT_THAT(_observer.TakeNames(), ElementsAre("[Audio]volume"));
}

TEST_F(ChangeObserverTest, AnErasedGroupTellsAllItsKeys)
{
    _store.OverwriteSettings("*", Ini(""));
    EXPECT_THAT(_observer.TakeNames(), ElementsAre("[Audio]balance", "[Audio]volume", "[Display]brightness"));
}

TEST_F(ChangeObserverTest, AnOverwriteTellsWhatItLeavesDifferent)
{
    _store.OverwriteSettings("Audio", Ini("[Audio]\nvolume=40\ntreble=1\n[Display]\nbrightness=1\n[AAA]\nk=v\n"));
    EXPECT_THAT(_observer.TakeNames(), ElementsAre("[AAA]k", "[Audio]balance", "[Audio]treble", "[Display]brightness"));
}

TEST_F(ChangeObserverTest, ARestoreTellsWhatItBringsBack)
{
    _store.MergeSettings(Ini("[Audio]\nvolume=65\nextra=1\n[Mine]\nk=v\n"), 0);
    _observer.Take();
    GroupNameCollection all = {"*"};
    common::GroupNameMatcher matcher;
    matcher.AddNamesAndPatterns(all);
    _store.RestoreToDefaults(matcher);
    EXPECT_THAT(_observer.TakeNames(), ElementsAre("[Audio]extra", "[Audio]volume", "[Mine]k"));
    _store.RestoreToDefaults(matcher);
    EXPECT_THAT(_observer.Take(), IsEmpty());
}

TEST_F(ChangeObserverTest, TellsWhoDidWhat)
{
    const TestOrigin origin;
    common::GroupNameMatcher matcher;
    matcher.AddNameOrPattern("Audio");
    _store.MergeSettings(Ini("[Audio]\nvolume=1\n"), 0, &origin);
    _store.MergeSettings(Ini("[Audio]\nvolume=2\n"), NoPersist, &origin);
    _store.TestAndMerge(Ini(""), Ini("[Audio]\nvolume=3\n"), &origin);
    _store.OverwriteSettings(GroupNameCollection{"Audio"}, Ini("[Audio]\nvolume=4\n"), &origin);
    _store.RestoreToDefaults(matcher, &origin);
    std::vector<std::string> operations;
    for (const RecordingObserver::Record& record : _observer.Take())
    {
        operations.push_back(record.what);
        EXPECT_EQ(record.pOrigin, &origin);
        EXPECT_EQ(record.outcome, ChangeOutcome::Done);
    }
    EXPECT_THAT(operations, ElementsAre("merge", "merge nopersist", "test-and-merge", "overwrite", "restore"));
}

TEST_F(ChangeObserverTest, AChangeThatIsNotSavedHasFailed)
{
    _persister.beforeSave = [] { throw osa::Exception("the disk is full"); };
    EXPECT_THROW(_store.MergeSettings(Ini("[Audio]\nvolume=1\n"), 0), osa::Exception);
    EXPECT_THROW(_store.OverwriteSettings("Display", Ini("")), osa::Exception);
    const auto records = _observer.Take();
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0].outcome, ChangeOutcome::Failed);
    EXPECT_THAT(records[0].names, ElementsAre("[Audio]volume"));
    EXPECT_EQ(records[1].outcome, ChangeOutcome::Failed);
}

TEST_F(ChangeObserverTest, ARestoreWhoseDefaultsCannotBeReadIsNotTold)
{
    _store.MergeSettings(Ini("[Audio]\nvolume=1\n"), 0);
    _observer.Take();
    _persister.beforeLoadDefaults = [] { throw osa::Exception("no such file"); };
    common::GroupNameMatcher matcher;
    matcher.AddNameOrPattern("*");
    EXPECT_THROW(_store.RestoreToDefaults(matcher), osa::Exception);
    EXPECT_THAT(_observer.Take(), IsEmpty());
}

/// What a handler tells of the requests of a client that may change "A*" and read "B*".
std::vector<RecordingObserver::Record> Handle(SettingsManager& store, RecordingObserver& observer,
                                              const ChangeOrigin& origin, const std::string& requests)
{
    FakeRights rights;
    rights.read = {"B*"};
    rights.change = {"A*"};
    FakeAccess access(rights);
    SerializationManager serializers;
    ServerEnv env{&store, &serializers};
    std::istringstream in(requests);
    std::ostringstream out;
    ClientHandler(&env, &in, &out, nullptr, &access, &origin).Run();
    return observer.Take();
}

TEST_F(ChangeObserverTest, AHandlerPassesItsOriginWithEachChange)
{
    const TestOrigin origin;
    const auto records = Handle(_store, _observer, origin,
                                "merge\n[Audio]\nvolume=1\n.\nmerge nopersist\n[Audio]\nvolume=2\n.\n"
                                "test-and-merge\n.\n[Audio]\nvolume=3\n.\noverwrite\nAudio\n.\n.\n"
                                "restore\nAudio\n.\n");
    ASSERT_EQ(records.size(), 5u);
    for (const RecordingObserver::Record& record : records)
    {
        EXPECT_EQ(record.pOrigin, &origin);
        EXPECT_EQ(record.outcome, ChangeOutcome::Done);
    }
}

TEST_F(ChangeObserverTest, ARefusalTellsWhatWasAskedFor)
{
    const struct
    {
        const char* request;
        const char* what;
        std::vector<std::string> names;
    } rows[] = {
        {"merge\n[Audio]\nvolume=1\n[Display]\nbrightness=1\n[XSecure]\nk=v\n.\n",
         "merge",
         {"[Audio]volume", "[Display]brightness"}},
        {"merge nopersist\n[Display]\n.\n", "merge nopersist", {"[Display]"}},
        {"test-and-merge\n[WifiSecure]\nkey=guess\n[B]\nk=v\n.\n[Audio]\nvolume=1\n.\n",
         "test-and-merge",
         {"[Audio]volume", "[WifiSecure]"}},
        {"overwrite\nAudio\nD*\n.\n[Display]\nbrightness=1\n.\n",
         "overwrite",
         {"[Audio]", "[D*]", "[Display]brightness"}},
        {"restore\nAudio\nDisplay\n*\n.\n", "restore", {"[*]", "[Audio]", "[Display]"}},
    };
    for (const auto& row : rows)
    {
        SCOPED_TRACE(row.request);
        const TestOrigin origin;
        const auto records = Handle(_store, _observer, origin, row.request);
        ASSERT_EQ(records.size(), 1u);
        EXPECT_EQ(records[0].pOrigin, &origin);
        EXPECT_EQ(records[0].outcome, ChangeOutcome::Refused);
        EXPECT_EQ(records[0].what, row.what);
        EXPECT_EQ(records[0].names, row.names);
    }
}

TEST_F(ChangeObserverTest, ChangesAreToldInTheOrderInWhichTheyTookEffect)
{
    // Each thread merges a value that no other has; the last that was told must be the one that is left.
    const std::vector<TestOrigin> origins(4);
    std::vector<std::thread> threads;
    std::atomic<int> next{0};
    for (const TestOrigin& origin : origins)
    {
        threads.emplace_back([&] {
            for (int i = 0; i < 50; ++i)
            {
                _store.MergeSettings(
                    Ini("[G]\nvalue=" + std::to_string(&origin - origins.data()) + "/" + std::to_string(next++) + '\n'),
                    NoPersist, &origin);
            }
        });
    }
    for (std::thread& thread : threads)
    {
        thread.join();
    }
    const auto records = _observer.Take();
    ASSERT_EQ(records.size(), 200u);
    IniFile settings;
    _store.GetGroups(settings, "G");
    const std::string& value = settings.GetValue("G", "value");
    EXPECT_EQ(records.back().pOrigin, &origins[static_cast<std::size_t>(value[0] - '0')]);
}

/// The keys in which the documents differ, and the groups without a key that only one of them has.
std::vector<std::string> Difference(const IniFile& before, const IniFile& after)
{
    std::set<std::string> groups;
    std::vector<std::string> texts;
    for (const IniFile* pSettings : {&before, &after})
    {
        for (const auto& group : *pSettings)
        {
            groups.insert(group.first);
        }
    }
    for (const std::string& group : groups)
    {
        std::set<std::string> keys;
        for (const IniFile* pSettings : {&before, &after})
        {
            if (pSettings->HasGroup(group))
            {
                for (const auto& value : (*pSettings)[group])
                {
                    keys.insert(value.first);
                }
            }
        }
        std::vector<std::string> changed;
        for (const std::string& key : keys)
        {
            if (before.HasValue(group, key) != after.HasValue(group, key) ||
                before.GetValueOrDefault(group, key) != after.GetValueOrDefault(group, key))
            {
                changed.push_back('[' + group + ']' + key);
            }
        }
        if (changed.empty() && before.HasGroup(group) != after.HasGroup(group))
        {
            changed.push_back('[' + group + ']');
        }
        texts.insert(texts.end(), changed.begin(), changed.end());
    }
    return texts;
}

/// Random documents and selections over a few names, so that what they do meets often.
///
/// Thread safety: none of its own; the owner guards it.
class Dice
{
public:
    explicit Dice(unsigned int seed) : _random(seed) {}

    unsigned int Below(unsigned int limit) { return static_cast<unsigned int>(_random() % limit); }

    IniFile Document()
    {
        IniFile document;
        for (unsigned int groups = Below(4); groups > 0; --groups)
        {
            IniFile::KeyValueMap& values = document[Group()];
            for (unsigned int keys = Below(3); keys > 0; --keys)
            {
                values.insert_or_assign(std::string(1, static_cast<char>('a' + Below(3))), std::to_string(Below(2)));
            }
        }
        return document;
    }

    GroupNameCollection Selection()
    {
        static const std::vector<std::string> patterns = {"*", "A*", "KorloSettings/*"};
        GroupNameCollection selection;
        for (unsigned int count = 1 + Below(2); count > 0; --count)
        {
            selection.insert(Below(3) == 0 ? patterns[Below(3)] : Group());
        }
        return selection;
    }

private:
    std::string Group()
    {
        static const std::vector<std::string> names = {"A",   "AB",      "B",
                                                       "C/D", "XSecure", "KorloSettings/Data/DeletedGroups"};
        return names[Below(6)];
    }

    std::mt19937 _random;
};

TEST(ChangeObserverModelTest, TellsExactlyWhatReadersSeeDiffer)
{
    for (unsigned int seed = 1; seed <= 60; ++seed)
    {
        SCOPED_TRACE("seed " + std::to_string(seed));
        Dice dice(seed);
        RecordingPersister persister;
        RecordingRestrictedLoader loader;
        persister.defaults = {dice.Document(), dice.Document()};
        loader.documents = {dice.Document()};
        SettingsManager store(&persister, &loader, nullptr, false);
        RecordingObserver observer;
        store.SetChangeObserver(&observer);
        for (int step = 0; step < 20; ++step)
        {
            IniFile before;
            store.GetGroups(before, "*");
            common::GroupNameMatcher matcher;
            switch (dice.Below(5))
            {
            case 0:
                store.MergeSettings(dice.Document(), 0);
                break;
            case 1:
                store.MergeSettings(dice.Document(), NoPersist);
                break;
            case 2:
                store.TestAndMerge(dice.Document(), dice.Document());
                break;
            case 3:
                store.OverwriteSettings(dice.Selection(), dice.Document());
                break;
            default:
                matcher.AddNamesAndPatterns(dice.Selection());
                store.RestoreToDefaults(matcher);
            }
            IniFile after;
            store.GetGroups(after, "*");
            std::vector<std::string> told;
            for (const RecordingObserver::Record& record : observer.Take())
            {
                told.insert(told.end(), record.names.begin(), record.names.end());
            }
            ASSERT_EQ(told, Difference(before, after));
        }
    }
}

}  // namespace
}  // namespace korlo::settings::server
