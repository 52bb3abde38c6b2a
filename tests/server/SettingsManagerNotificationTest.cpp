// Whom the store tells of a change, what it says, and what a subscriber may do meanwhile.
#include "settings/server/SettingsManager.h"

#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <ostream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "support/Callbacks.h"
#include "support/Documents.h"
#include "support/Files.h"
#include "support/RecordingPersister.h"
#include "support/Selection.h"

namespace korlo::settings::server
{
namespace
{

using namespace std::chrono_literals;
using core::IniFile;

using Changes = std::vector<Change>;

/// A loaded store and a subscriber to everything.
class SettingsManagerNotificationTest : public testing::Test
{
protected:
    SettingsManagerNotificationTest()
    {
        persister.defaults = {Ini("[A]\nx=1\ny=1\n[Net/a]\nm=1\n[Net/b]\nm=1\n")};
        store.LoadSettings();
        store.Subscribe(&all, "*");
    }

    RecordingPersister persister;
    SettingsManager store{&persister, nullptr, nullptr, true};
    RecordingCallback all;
};

TEST_F(SettingsManagerNotificationTest, AMergeAnnouncesItsUnrestrictedGroupsAndNoMoreThanItsKeys)
{
    store.MergeSettings(Ini("[A]\nx=2\n[SecureB]\nz=1\n[C]\n"), 0);
    store.MergeSettings(Ini("[A]\ny=3\n"), SettingsManager::DoNotPersist);
    EXPECT_EQ(all.GetChanges(), (Changes{{{"A", "C"}, Ini("[A]\nx=2\n[C]\n")}, {{"A"}, Ini("[A]\ny=3\n")}}));
}

TEST_F(SettingsManagerNotificationTest, AMergeThatChangesNoValueIsAnnounced)
{
    store.MergeSettings(Ini("[A]\nx=1\n"), 0);
    EXPECT_EQ(all.GetChanges(), (Changes{{{"A"}, Ini("[A]\nx=1\n")}}));
}

TEST_F(SettingsManagerNotificationTest, AMergeWithNothingLeftReachesNobody)
{
    store.MergeSettings(IniFile(), 0);
    store.MergeSettings(Ini("[SecureB]\nz=1\n"), 0);
    EXPECT_TRUE(all.GetChanges().empty());
}

TEST_F(SettingsManagerNotificationTest, ATestAndMergeAnnouncesWhatItMerged)
{
    EXPECT_TRUE(store.TestAndMerge(Ini("[A]\nx=1\n"), Ini("[A]\nx=2\n[TrustedB]\nz=1\n")));
    EXPECT_EQ(all.GetChanges(), (Changes{{{"A"}, Ini("[A]\nx=2\n")}}));
}

TEST_F(SettingsManagerNotificationTest, AnOverwriteAnnouncesErasedAndReplacedGroupsWithTheReplacement)
{
    store.OverwriteSettings("Net/*", Ini("[Net/b]\nm=2\n[Other]\nz=1\n[SecureB]\nz=1\n"));
    EXPECT_EQ(all.GetChanges(), (Changes{{{"Net/a", "Net/b", "Other"}, Ini("[Net/b]\nm=2\n[Other]\nz=1\n")}}));
}

TEST_F(SettingsManagerNotificationTest, AnOverwriteThatMatchesNothingReachesNobody)
{
    store.OverwriteSettings("Missing", IniFile());
    EXPECT_TRUE(all.GetChanges().empty());
}

TEST_F(SettingsManagerNotificationTest, ARestoreAnnouncesRemovedAndRestoredGroupsWithTheRestoredValues)
{
    store.MergeSettings(Ini("[Net/c]\nm=1\n[A]\nx=2\n"), SettingsManager::DoNotPersist);
    store.MergeSettings(Ini("[Net/b]\nm=2\n[Net/d]\nm=1\n"), 0);
    const std::size_t before = all.GetChanges().size();
    store.RestoreToDefaults(MatcherOf({"Net/*"}));
    ASSERT_EQ(all.GetChanges().size(), before + 1);
    EXPECT_EQ(all.GetChanges().back(), (Change{{"Net/a", "Net/b", "Net/d"}, Ini("[Net/a]\nm=1\n[Net/b]\nm=1\n")}));
}

TEST_F(SettingsManagerNotificationTest, EverySubscribeFormAsksForNamesAndPatterns)
{
    RecordingCallback byMatcher;
    RecordingCallback byCollection;
    RecordingCallback byName;
    RecordingCallback byPattern;
    store.Subscribe(&byMatcher, MatcherOf({"A", "Net/*"}));
    store.Subscribe(&byCollection, GroupNameCollection{"A", "Net/*"});
    store.Subscribe(&byName, "A");
    store.Subscribe(&byPattern, "Net/*");
    store.MergeSettings(Ini("[A]\n[Net/a]\n[Other]\n"), 0);
    using Groups = std::vector<GroupNameCollection>;
    EXPECT_EQ(byMatcher.GetGroups(), (Groups{{"A", "Net/a"}}));
    EXPECT_EQ(byCollection.GetGroups(), (Groups{{"A", "Net/a"}}));
    EXPECT_EQ(byName.GetGroups(), (Groups{{"A"}}));
    EXPECT_EQ(byPattern.GetGroups(), (Groups{{"Net/a"}}));
}

TEST_F(SettingsManagerNotificationTest, ANullCallbackIsRefusedByEverySubscribeForm)
{
    EXPECT_EQ(MessageOf([&] { store.Subscribe(nullptr, MatcherOf({"A"})); }), "callback was NULL");
    EXPECT_EQ(MessageOf([&] { store.Subscribe(nullptr, GroupNameCollection{"A"}); }), "callback was NULL");
    EXPECT_EQ(MessageOf([&] { store.Subscribe(nullptr, "A"); }), "callback was NULL");
    store.MergeSettings(Ini("[A]\n"), 0);
}

TEST_F(SettingsManagerNotificationTest, TheStoreIsSavedBeforeTheChangeIsAnnounced)
{
    int savesSeen = -1;
    FunctionCallback callback([&](const GroupNameCollection&, const IniFile&) { savesSeen = persister.saveCount; });
    store.Subscribe(&callback, "A");
    store.MergeSettings(Ini("[A]\n"), 0);
    EXPECT_EQ(savesSeen, 1);
}

TEST_F(SettingsManagerNotificationTest, CallbacksRunOnTheThreadThatMadeTheChange)
{
    std::thread::id called;
    FunctionCallback callback([&](const GroupNameCollection&, const IniFile&) { called = std::this_thread::get_id(); });
    store.Subscribe(&callback, "A");
    const std::thread::id changing = std::async(std::launch::async, [&] {
                                         store.MergeSettings(Ini("[A]\n"), 0);
                                         return std::this_thread::get_id();
                                     }).get();
    EXPECT_EQ(called, changing);
}

TEST_F(SettingsManagerNotificationTest, ACallbackMayReadTheStoreOnItsOwnAndOnOtherThreads)
{
    const auto readX = [this] {
        IniFile now;
        store.GetGroups(now, "A");
        return now.GetValueOrDefault("A", "x");
    };
    std::vector<std::string> seen;
    FunctionCallback callback([&](const GroupNameCollection&, const IniFile&) {
        seen.push_back(readX());
        auto other = std::async(std::launch::async, readX);
        ASSERT_EQ(other.wait_for(10s), std::future_status::ready);
        seen.push_back(other.get());
    });
    store.Subscribe(&callback, "A");
    store.MergeSettings(Ini("[A]\nx=2\n"), 0);
    EXPECT_EQ(seen, (std::vector<std::string>{"2", "2"}));
}

TEST_F(SettingsManagerNotificationTest, ACallbackMayMakeEveryKindOfChange)
{
    FunctionCallback callback([&](const GroupNameCollection&, const IniFile&) {
        store.MergeSettings(Ini("[Merged]\nx=1\n"), 0);
        EXPECT_TRUE(store.TestAndMerge(Ini("[Merged]\nx=1\n"), Ini("[Merged]\nx=2\n")));
        store.OverwriteSettings("Net/a", IniFile());
        store.RestoreToDefaults(MatcherOf({"Net/b"}));
    });
    store.Subscribe(&callback, "A");
    store.MergeSettings(Ini("[A]\nx=2\n"), 0);
    IniFile now;
    store.GetGroups(now, "*");
    EXPECT_EQ(now, Ini("[A]\nx=2\ny=1\n[Merged]\nx=2\n[Net/b]\nm=1\n"));
}

TEST_F(SettingsManagerNotificationTest, ACallbackMaySubscribeAndUnsubscribe)
{
    RecordingCallback late;
    FunctionCallback callback;
    callback.Do([&](const GroupNameCollection&, const IniFile&) {
        store.Subscribe(&late, "Late");
        store.Unsubscribe(&callback);
        store.MergeSettings(Ini("[Late]\n"), 0);
    });
    store.Subscribe(&callback, GroupNameCollection{"A", "Late"});
    store.MergeSettings(Ini("[A]\n"), 0);
    EXPECT_EQ(late.GetGroups(), (std::vector<GroupNameCollection>{{"Late"}}));
}

TEST_F(SettingsManagerNotificationTest, WhatACallbackThrowsPassesOutOfTheChangeThatIsMade)
{
    FunctionCallback callback([](const GroupNameCollection&, const IniFile&) { throw std::runtime_error("refused"); });
    store.Subscribe(&callback, "A");
    EXPECT_THROW(store.MergeSettings(Ini("[A]\nx=2\n"), 0), std::runtime_error);
    EXPECT_THROW(store.TestAndMerge(Ini("[A]\nx=2\n"), Ini("[A]\nx=3\n")), std::runtime_error);
    EXPECT_THROW(store.OverwriteSettings("A", Ini("[A]\nx=4\n")), std::runtime_error);
    EXPECT_EQ(persister.saveCount, 3);
    EXPECT_EQ(persister.user.GetValueOrDefault("A", "x"), "4");
    EXPECT_THROW(store.RestoreToDefaults(MatcherOf({"A"})), std::runtime_error);
    EXPECT_EQ(persister.user.GetValueOrDefault("A", "x"), "1");

    // Neither the store nor its dispatcher stays locked.
    store.Unsubscribe(&callback);
    auto change = std::async(std::launch::async, [&] { store.MergeSettings(Ini("[A]\nx=5\n"), 0); });
    ASSERT_EQ(change.wait_for(10s), std::future_status::ready);
    EXPECT_EQ(all.GetChanges().back(), (Change{{"A"}, Ini("[A]\nx=5\n")}));
}

/// Counts the texts that were made.
///
/// Thread safety: none of its own; the owner guards it.
class CountingSerializer : public ISettingsSerializer
{
public:
    void OnSerialize(const IniFile& ini, const common::GroupNameMatcher&, std::ostream& out) const override
    {
        ++count;
        ini.SaveToStream(out);
    }

    void OnDeserialize(std::istream&, IniFile&) const override {}

    mutable int count = 0;
};

/// Another form of the same.
///
/// Thread safety: as its base's.
class OtherSerializer : public CountingSerializer
{
};

void WriteAll(std::ostream& os, const GroupNameCollection& groups, const IniFile& settings,
              const ISettingsSerializer& serializer)
{
    serializer.OnSerialize(settings, MatcherOf(groups), os);
}

TEST_F(SettingsManagerNotificationTest, OneTextIsMadeForAllSubscribersThatGetTheSame)
{
    const CountingSerializer serializer;
    const auto pFirst = store.WriteNotification({"A"}, serializer, &WriteAll);
    EXPECT_EQ(*pFirst, "[A]\nx=1\ny=1\n[Net/a]\nm=1\n[Net/b]\nm=1\n");
    for (int subscriber = 0; subscriber < 500; ++subscriber)
    {
        EXPECT_EQ(store.WriteNotification({"A"}, serializer, &WriteAll), pFirst);
    }
    EXPECT_EQ(serializer.count, 1);
}

TEST_F(SettingsManagerNotificationTest, OtherGroupsAndOtherFormsGetATextOfTheirOwn)
{
    const CountingSerializer serializer;
    const OtherSerializer other;
    store.WriteNotification({"A"}, serializer, &WriteAll);
    store.WriteNotification({"A", "B"}, serializer, &WriteAll);
    store.WriteNotification({"A", "B"}, other, &WriteAll);
    EXPECT_EQ(serializer.count, 2);
    EXPECT_EQ(other.count, 1);
}

TEST_F(SettingsManagerNotificationTest, AfterEveryKindOfChangeTheTextIsMadeAnew)
{
    const std::vector<std::function<void()>> changes = {
        [this] { store.MergeSettings(Ini("[A]\nx=2\n"), SettingsManager::DoNotPersist); },
        [this] { store.MergeSettings(Ini("[A]\nx=3\n"), 0); },
        [this] { store.TestAndMerge(Ini("[A]\nx=3\n"), Ini("[A]\nx=4\n")); },
        [this] { store.OverwriteSettings("A", Ini("[A]\nx=5\n")); },
        [this] { store.RestoreToDefaults(MatcherOf({"A"})); },
    };
    const CountingSerializer serializer;
    std::string before = *store.WriteNotification({"A"}, serializer, &WriteAll);
    for (const auto& change : changes)
    {
        change();
        const std::string after = *store.WriteNotification({"A"}, serializer, &WriteAll);
        EXPECT_NE(after, before);
        before = after;
    }
}

TEST_F(SettingsManagerNotificationTest, ALargeTextIsNotKept)
{
    store.MergeSettings(Ini("[Big]\nk=" + std::string(64 * 1024, 'x') + '\n'), SettingsManager::DoNotPersist);
    const CountingSerializer serializer;
    const std::weak_ptr<const std::string> pText = store.WriteNotification({"Big"}, serializer, &WriteAll);
    EXPECT_TRUE(pText.expired());
}

TEST_F(SettingsManagerNotificationTest, WhatCannotBeWrittenIsNotTakenForTheText)
{
    const CountingSerializer serializer;
    EXPECT_THROW(store.WriteNotification(
                     {"A"}, serializer,
                     [](std::ostream& os, const GroupNameCollection&, const IniFile&, const ISettingsSerializer&) {
                         os << "a part";
                         throw std::runtime_error("the rest is missing");
                     }),
                 std::runtime_error);
    EXPECT_EQ(store.WriteNotification({"A"}, serializer, &WriteAll)->substr(0, 4), "[A]\n");
}

}  // namespace
}  // namespace korlo::settings::server
