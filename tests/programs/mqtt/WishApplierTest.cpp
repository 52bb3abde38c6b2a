#include "WishApplier.h"

#include <functional>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "WishQueue.h"
#include "settings/RefusedException.h"
#include "settings/server/SettingsManager.h"
#include "support/RecordingPersister.h"

namespace korlo::settings::mqtt
{
namespace
{

using testing::HasSubstr;

/// A store in this process, behind which a test may do something else.
class StoreSettings : public IWishSettings
{
public:
    explicit StoreSettings(server::ISettingsPersister& persister) : _store(&persister, nullptr, nullptr, false) {}

    void GetSettings(const GroupNameCollection& entries, core::IniFile& settings) override
    {
        for (const std::string& entry : entries)
        {
            _store.GetGroups(settings, entry);
        }
        Call(afterGet);
    }

    bool TestAndMerge(const core::IniFile& expected, const core::IniFile& changes) override
    {
        Call(beforeChange);
        const bool isMerged = _store.TestAndMerge(expected, changes);
        Call(afterChange);
        return isMerged;
    }

    void OverwriteSettings(const GroupNameCollection& entries, const core::IniFile& replacement) override
    {
        Call(beforeChange);
        _store.OverwriteSettings(entries, replacement);
        Call(afterChange);
    }

    std::string Value(const std::string& group, const std::string& key) const
    {
        core::IniFile settings;
        _store.GetGroups(settings, group);
        return settings.GetValueOrDefault(group, key);
    }

    bool Has(const std::string& group) const
    {
        core::IniFile settings;
        _store.GetGroups(settings, group);
        return settings.HasGroup(group);
    }

    void Set(const std::string& group, const std::string& key, const std::string& value)
    {
        core::IniFile changes;
        changes.SetValue(group, key, value);
        _store.MergeSettings(changes, 0);
    }

    std::function<void()> afterGet;
    std::function<void()> beforeChange;
    std::function<void()> afterChange;

private:
    static void Call(const std::function<void()>& function)
    {
        if (function)
        {
            function();
        }
    }

    server::SettingsManager _store;
};

class WishApplierTest : public testing::Test
{
protected:
    static Desired WishOf(const std::string& state, std::uint64_t version, const std::string& mode = "merge")
    {
        return ReadDesired(R"({"state":)" + state + R"(,"version":)" + std::to_string(version) + R"(,"mode":")" + mode +
                           "\"}");
    }

    WishOutcome::Result Apply(const std::string& group, const Desired& wish, bool isRepeated = false)
    {
        _outcome = _applier.Apply(group, wish, isRepeated);
        return _outcome.result;
    }

    server::RecordingPersister _persister;
    StoreSettings _settings{_persister};
    WishApplier _applier{_settings};
    WishOutcome _outcome;
};

TEST_F(WishApplierTest, AMergeSetsItsKeysAndKeepsTheOthers)
{
    _settings.Set("A", "kept", "1");
    _settings.Set("A", "changed", "1");
    EXPECT_EQ(Apply("A", WishOf(R"({"changed":"2","new":"3"})", 5)), WishOutcome::Accepted);
    EXPECT_EQ(_outcome.rejection.version, 5u);
    EXPECT_EQ(_settings.Value("A", "kept"), "1");
    EXPECT_EQ(_settings.Value("A", "changed"), "2");
    EXPECT_EQ(_settings.Value("A", "new"), "3");
    EXPECT_EQ(_settings.Value(FleetGroup, "A"), "5");
}

TEST_F(WishApplierTest, AReplacementTakesTheOtherKeysAway)
{
    _settings.Set("A", "gone", "1");
    _settings.Set("B", "kept", "1");
    EXPECT_EQ(Apply("A", WishOf(R"({"new":"3"})", 5, "replace")), WishOutcome::Accepted);
    EXPECT_EQ(_settings.Value("A", "gone"), "");
    EXPECT_EQ(_settings.Value("A", "new"), "3");
    EXPECT_EQ(_settings.Value("B", "kept"), "1");
}

TEST_F(WishApplierTest, AnEmptyReplacementErasesTheGroup)
{
    _settings.Set("A", "gone", "1");
    EXPECT_EQ(Apply("A", WishOf("{}", 5, "replace")), WishOutcome::Accepted);
    EXPECT_FALSE(_settings.Has("A"));
    EXPECT_EQ(_settings.Value(FleetGroup, "A"), "5");
}

TEST_F(WishApplierTest, AReplacementKeepsTheVersionsOfOtherGroups)
{
    Apply("A", WishOf(R"({"k":"1"})", 3));
    Apply("B", WishOf(R"({"k":"1"})", 8, "replace"));
    Apply("A", WishOf(R"({"k":"2"})", 4, "replace"));
    EXPECT_EQ(_settings.Value(FleetGroup, "A"), "4");
    EXPECT_EQ(_settings.Value(FleetGroup, "B"), "8");
    for (const auto& [key, entry] : _persister.user["KorloSettings/Data/DeletedGroups"])
    {
        EXPECT_NE(entry, FleetGroup);
    }
}

TEST_F(WishApplierTest, VersionAndSettingsAreSavedInOneStep)
{
    for (const char* mode : {"merge", "replace"})
    {
        SCOPED_TRACE(mode);
        std::vector<core::IniFile> saved;
        _persister.beforeSave = [&] { saved.push_back(_persister.user); };
        ASSERT_EQ(Apply(mode, WishOf(R"({"k":"1"})", 5, mode)), WishOutcome::Accepted);
        ASSERT_EQ(saved.size(), 1u);
        EXPECT_FALSE(saved[0].HasGroup(mode));  // what was there before
        EXPECT_EQ(_persister.user.GetValueOrDefault(mode, "k"), "1");
        EXPECT_EQ(_persister.user.GetValueOrDefault(FleetGroup, mode), "5");
    }
}

TEST_F(WishApplierTest, TheSameVersionAgainIsNothing)
{
    Apply("A", WishOf(R"({"k":"1"})", 5));
    const auto saves = _persister.saveCount;
    EXPECT_EQ(Apply("A", WishOf(R"({"k":"2"})", 5)), WishOutcome::Nothing);
    EXPECT_EQ(_settings.Value("A", "k"), "1");
    EXPECT_EQ(_persister.saveCount, saves);
}

TEST_F(WishApplierTest, ALowerVersionIsOutdated)
{
    Apply("A", WishOf(R"({"k":"1"})", 5));
    EXPECT_EQ(Apply("A", WishOf(R"({"k":"2"})", 4)), WishOutcome::Rejected);
    EXPECT_EQ(_outcome.rejection.code, Rejection::Outdated);
    EXPECT_EQ(_outcome.rejection.version, 4u);
    EXPECT_EQ(_outcome.rejection.applied, 5u);
    EXPECT_EQ(_settings.Value("A", "k"), "1");
}

TEST_F(WishApplierTest, VersionsOfDifferentGroupsAreNotCompared)
{
    Apply("A", WishOf(R"({"k":"1"})", 5));
    EXPECT_EQ(Apply("B", WishOf(R"({"k":"1"})", 1)), WishOutcome::Accepted);
}

TEST_F(WishApplierTest, ALocalChangeStandsUntilAHigherVersion)
{
    Apply("Room", WishOf(R"({"temperature":"17"})", 5));
    _settings.Set("Room", "temperature", "22");
    EXPECT_EQ(Apply("Room", WishOf(R"({"temperature":"17"})", 5)), WishOutcome::Nothing);
    EXPECT_EQ(_settings.Value("Room", "temperature"), "22");
    EXPECT_EQ(Apply("Room", WishOf(R"({"temperature":"18"})", 6)), WishOutcome::Accepted);
    EXPECT_EQ(_settings.Value("Room", "temperature"), "18");
}

TEST_F(WishApplierTest, AVersionThatMakesNoSenseCountsAsNone)
{
    _settings.Set(FleetGroup, "A", "seven");
    EXPECT_EQ(Apply("A", WishOf(R"({"k":"1"})", 1)), WishOutcome::Accepted);
    EXPECT_EQ(_settings.Value(FleetGroup, "A"), "1");
}

TEST_F(WishApplierTest, AMergeIsRepeatedWhenSomebodyElseWasQuicker)
{
    _settings.Set("A", "k", "0");
    int changes = 0;
    _settings.afterGet = [&] {
        if (++changes <= 3)
        {
            _settings.Set("A", "k", "local " + std::to_string(changes));
        }
    };
    std::vector<std::string> seen;
    _settings.beforeChange = [&] { seen.push_back(_settings.Value("A", "k")); };
    EXPECT_EQ(Apply("A", WishOf(R"({"k":"fleet"})", 1)), WishOutcome::Accepted);
    EXPECT_EQ(seen.size(), 4u);
    EXPECT_EQ(_settings.Value("A", "k"), "fleet");
}

TEST_F(WishApplierTest, AMergeThatIsAlwaysTooLateIsTriedAgainLater)
{
    _settings.Set("A", "k", "0");
    int changes = 0;
    _settings.afterGet = [&] { _settings.Set("A", "k", std::to_string(++changes)); };
    EXPECT_EQ(Apply("A", WishOf(R"({"k":"fleet"})", 1)), WishOutcome::Failed);
    EXPECT_EQ(_settings.Value(FleetGroup, "A"), "");
}

TEST_F(WishApplierTest, AFailureIsTriedAgainEvenIfItMayHaveBeenMade)
{
    int saves = 0;
    _persister.beforeSave = [&] {
        ++saves;
        if (saves == 1)
        {
            throw osa::Exception("No space left on device");
        }
    };
    EXPECT_EQ(Apply("A", WishOf(R"({"k":"1"})", 5)), WishOutcome::Failed);
    EXPECT_EQ(_outcome.reason, "No space left on device");
    EXPECT_EQ(_settings.Value(FleetGroup, "A"), "5");  // in memory, but not on the disk
    EXPECT_EQ(Apply("A", WishOf(R"({"k":"1"})", 5), true), WishOutcome::Accepted);
    EXPECT_EQ(_persister.user.GetValueOrDefault("A", "k"), "1");
}

TEST_F(WishApplierTest, WhatTheAccessRulesForbidIsNotAllowed)
{
    _settings.beforeChange = [] { throw RefusedException("test-and-merge", {"A"}); };
    EXPECT_EQ(Apply("A", WishOf(R"({"k":"1"})", 5)), WishOutcome::Rejected);
    EXPECT_EQ(_outcome.rejection.code, Rejection::NotAllowed);
    EXPECT_THAT(_outcome.rejection.message, HasSubstr("'A'"));
}

TEST_F(WishApplierTest, ANameThatIsAPatternIsMergedButNotReplaced)
{
    for (const std::string name : {"A*", "A\nB", "."})
    {
        SCOPED_TRACE(name);
        EXPECT_EQ(Apply(name, WishOf(R"({"k":"1"})", 5, "replace")), WishOutcome::Rejected);
        EXPECT_EQ(_outcome.rejection.code, Rejection::MakesNoSense);
        EXPECT_EQ(Apply(name, WishOf(R"({"k":"1"})", 5)), WishOutcome::Accepted);
        EXPECT_EQ(_settings.Value(FleetGroup, name), "5");
        EXPECT_EQ(Apply(name, WishOf(R"({"k":"1"})", 5)), WishOutcome::Nothing);
    }
}

TEST_F(WishApplierTest, AnyOrderAndAnyRepetitionEndAlike)
{
    const std::vector<Desired> wishes = {WishOf(R"({"k":"1"})", 1), WishOf(R"({"k":"2"})", 2),
                                         WishOf(R"({"k":"3"})", 3, "replace"), WishOf(R"({"k":"4"})", 4)};
    std::vector<std::size_t> order = {0, 1, 2, 3, 3, 1};
    do
    {
        server::RecordingPersister persister;
        StoreSettings settings(persister);
        WishApplier applier(settings);
        for (const std::size_t index : order)
        {
            applier.Apply("A", wishes[index], false);
        }
        ASSERT_EQ(settings.Value("A", "k"), "4") << testing::PrintToString(order);
        ASSERT_EQ(settings.Value(FleetGroup, "A"), "4");
    } while (std::next_permutation(order.begin(), order.end()));
}

TEST(WishQueueTest, WishesComeInTheirOrder)
{
    WishQueue queue;
    queue.Add({TopicNames::Desired, "A", "A"}, "1", false);
    queue.Add({TopicNames::Desired, "B", "B"}, "2", true);
    queue.Add({TopicNames::Desired, "A", "A"}, "3", false);
    std::string order;
    while (!queue.IsEmpty())
    {
        order += queue.Take().payload;
    }
    EXPECT_EQ(order, "123");
}

TEST(WishQueueTest, WhatDoesNotFitIsDroppedAndNoted)
{
    WishQueue queue;
    const std::string large(MostDesiredBytes, 'x');
    for (int count = 0; count < 40; ++count)
    {
        queue.Add({TopicNames::Desired, std::to_string(count), std::nullopt}, large, true);
    }
    EXPECT_TRUE(queue.HasDropped());
    int kept = 0;
    for (; !queue.IsEmpty(); ++kept)
    {
        queue.NoteSettled(queue.Take());
    }
    EXPECT_GT(kept, 10);
    EXPECT_LT(kept, 20);

    // Once they are asked for again, those that have had their turn are left out.
    queue.NoteAsked();
    EXPECT_FALSE(queue.HasDropped());
    for (int count = 0; count < 40; ++count)
    {
        queue.Add({TopicNames::Desired, std::to_string(count), std::nullopt}, large, true);
    }
    EXPECT_EQ(queue.Take().topic.level, std::to_string(kept));
}

TEST(WishQueueTest, WhatIsSentOnceMoreIsNotLeftOut)
{
    WishQueue queue;
    queue.Add({TopicNames::Desired, "A", "A"}, "1", false);
    queue.NoteSettled(queue.Take());
    queue.Add({TopicNames::Desired, "A", "A"}, "1", true);
    EXPECT_TRUE(queue.IsEmpty());
    queue.Add({TopicNames::Desired, "A", "A"}, "1", false);
    EXPECT_FALSE(queue.IsEmpty());
}

TEST(WishQueueTest, OfAPayloadThatIsTooLargeNothingIsKept)
{
    WishQueue queue;
    queue.Add({TopicNames::Desired, "A", "A"}, std::string(MostDesiredBytes + 1, 'x'), false);
    const Wish wish = queue.Take();
    EXPECT_TRUE(wish.isTooLarge);
    EXPECT_EQ(wish.payload, "");
    queue.Add({TopicNames::Desired, "A", "A"}, std::string(MostDesiredBytes, 'x'), false);
    EXPECT_FALSE(queue.Take().isTooLarge);
}

}  // namespace
}  // namespace korlo::settings::mqtt
