// What reads, merges, overwrites and restores do to the store and its user layer.
#include "settings/server/SettingsManager.h"

#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "settings/server/SerializationManager.h"
#include "support/Callbacks.h"
#include "support/Documents.h"
#include "support/RecordingPersister.h"
#include "support/Selection.h"
#include "support/StoreContents.h"

namespace korlo::settings::server
{
namespace
{

using common::GroupNameMatcher;
using core::IniFile;

const std::string DeletedGroups = "KorloSettings/Data/DeletedGroups";
const std::string Record = "[" + DeletedGroups + "]\n";

/// The names and patterns that the user layer records as erased; each once, or the test fails.
GroupNameCollection Recorded(const SettingsManager& store)
{
    const IniFile user = UserLayer(store);
    GroupNameCollection recorded;
    for (const auto& [key, value] : user[DeletedGroups])
    {
        EXPECT_TRUE(recorded.insert(value).second) << value;
    }
    return recorded;
}

/// A loaded store over storage in memory.
class SettingsManagerTest : public testing::Test
{
protected:
    SettingsManagerTest()
    {
        persister.defaults = {Ini("[Audio]\nvolume=5\nmute=no\n[Net/Eth0]\nmode=dhcp\n[Net/Wlan0]\nmode=off\n")};
        loader.documents = {Ini("[SecureKeys]\nkey=secret\n[Net/Trusted]\nca=root\n")};
    }

    const IniFile& Defaults() const { return persister.defaults.front(); }

    IniFile With(const std::string& changes) const
    {
        IniFile all = Defaults();
        all.MergeSettings(loader.documents.front());
        all.MergeSettings(Ini(changes));
        return all;
    }

    RecordingPersister persister;
    RecordingRestrictedLoader loader;
    SettingsManager store{&persister, &loader, nullptr, true};

    void SetUp() override { store.LoadSettings(); }
};

TEST_F(SettingsManagerTest, GetGroupsAddsWholeGroupsToWhatTheDocumentHolds)
{
    IniFile out = Ini("[Audio]\nvolume=mine\nown=1\n[Kept]\nx=1\n");
    store.GetGroups(out, MatcherOf({"Audio", "Net/W*", "Missing"}));
    EXPECT_EQ(out, Ini("[Audio]\nvolume=5\nmute=no\nown=1\n[Kept]\nx=1\n[Net/Wlan0]\nmode=off\n"));
}

TEST_F(SettingsManagerTest, GetLayersGivesTheSettingsAndTheUserLayerOfOneMoment)
{
    store.MergeSettings(Ini("[Audio]\nvolume=7\n"), 0);
    store.MergeSettings(Ini("[Audio]\nmute=yes\n"), SettingsManager::DoNotPersist);
    store.OverwriteSettings("Net/Eth0", Ini(""));
    IniFile settings = Ini("[Kept]\nx=1\n");
    IniFile user;
    store.GetLayers({"Audio", "Net/*", "Missing", DeletedGroups}, settings, user);
    EXPECT_EQ(settings, Ini("[Audio]\nvolume=7\nmute=yes\n[Kept]\nx=1\n")) << "a pattern is a name here";
    EXPECT_EQ(user, Ini("[Audio]\nvolume=7\n" + Record + "1=Net/Eth0\n"));
}

TEST_F(SettingsManagerTest, GetGroupsTakesOneNameOrPattern)
{
    IniFile byName;
    store.GetGroups(byName, "Audio");
    EXPECT_EQ(byName, Ini("[Audio]\nvolume=5\nmute=no\n"));
    IniFile byPattern;
    store.GetGroups(byPattern, "Net/*");
    EXPECT_EQ(byPattern, Ini("[Net/Eth0]\nmode=dhcp\n[Net/Trusted]\nca=root\n[Net/Wlan0]\nmode=off\n"));
    IniFile nothing;
    store.GetGroups(nothing, "Net");
    store.GetGroups(nothing, "");
    EXPECT_TRUE(nothing.empty());
}

TEST_F(SettingsManagerTest, DumpsAreTheTextOfTheWholeDocuments)
{
    store.MergeSettings(Ini("[Audio]\nvolume=6\n"), 0);
    std::ostringstream user;
    store.DumpUserSettings(user);
    EXPECT_EQ(user.str(), TextOf(Ini("[Audio]\nvolume=6\n")));
    std::ostringstream all;
    store.DumpAllSettings(all);
    EXPECT_EQ(all.str(), TextOf(With("[Audio]\nvolume=6\n")));
}

TEST_F(SettingsManagerTest, WriteGroupsWritesTheSelectionInTheSerializersForm)
{
    const SerializationManager forms;
    std::ostringstream php;
    store.WriteGroups(php, MatcherOf({"Net/W*"}), *forms.GetSerializer("phparray"));
    EXPECT_EQ(php.str(), "a:1:{s:9:\"Net/Wlan0\";a:1:{s:4:\"mode\";s:3:\"off\";}}\n\n");
    std::ostringstream ini;
    store.WriteGroups(ini, MatcherOf({"Net/Wlan0"}), *forms.GetSerializer("ini"));
    EXPECT_EQ(ini.str(), TextOf(Ini("[Net/Wlan0]\nmode=off\n")));
}

TEST_F(SettingsManagerTest, AMergeShowsInBothDocumentsAndIsSavedOnce)
{
    store.MergeSettings(Ini("[Audio]\nvolume=6\n[New]\nx=1\n[Empty]\n"), 0);
    EXPECT_EQ(All(store), With("[Audio]\nvolume=6\n[New]\nx=1\n[Empty]\n"));
    EXPECT_EQ(UserLayer(store), Ini("[Audio]\nvolume=6\n[New]\nx=1\n[Empty]\n"));
    EXPECT_EQ(persister.user, UserLayer(store));
    EXPECT_EQ(persister.saveCount, 1);
}

TEST_F(SettingsManagerTest, AMergeThatDoesNotPersistShowsInTheSettingsAlone)
{
    for (const unsigned int flags : {1u, 3u, 0xFFFFFFFFu})
    {
        store.MergeSettings(Ini("[Audio]\nvolume=6\n"), flags);
        EXPECT_EQ(All(store), With("[Audio]\nvolume=6\n"));
        EXPECT_TRUE(UserLayer(store).empty());
        EXPECT_EQ(persister.saveCount, 0);
    }
}

TEST_F(SettingsManagerTest, OtherFlagsThanTheFirstMeanNothing)
{
    int saves = 0;
    for (const unsigned int flags : {2u, 4u, 0xFFFFFFFEu})
    {
        store.MergeSettings(Ini("[Audio]\nvolume=6\n"), flags);
        EXPECT_EQ(UserLayer(store), Ini("[Audio]\nvolume=6\n"));
        EXPECT_EQ(persister.saveCount, ++saves);
    }
}

TEST_F(SettingsManagerTest, AMergeDropsRestrictedGroupsSilently)
{
    const IniFile changes = Ini("[Audio]\nvolume=6\n[SecureKeys]\nkey=mine\n[NewTrusted]\n");
    store.MergeSettings(changes, 0);
    EXPECT_EQ(All(store), With("[Audio]\nvolume=6\n"));
    EXPECT_EQ(UserLayer(store), Ini("[Audio]\nvolume=6\n"));
}

TEST_F(SettingsManagerTest, AMergeOfRestrictedGroupsAloneChangesNothingAndIsSaved)
{
    store.MergeSettings(Ini("[SecureKeys]\nkey=mine\n"), SettingsManager::DoNotPersist);
    EXPECT_EQ(persister.saveCount, 0);
    store.MergeSettings(Ini("[SecureKeys]\nkey=mine\n"), 0);
    EXPECT_EQ(persister.saveCount, 1);
    EXPECT_TRUE(persister.user.empty());
    EXPECT_EQ(All(store), With(""));
}

// For callers that hold the lock and have filtered already. Nobody else uses the store here, so no lock is needed.
TEST_F(SettingsManagerTest, TheUnlockedMergeNeitherFiltersNorNotifies)
{
    RecordingCallback callback;
    store.Subscribe(&callback, "*");
    const auto merge = [this](const IniFile& changes, unsigned int flags)
                           KORLO_NO_THREAD_SAFETY_ANALYSIS { store.PerformMergeUnlocked(changes, flags); };
    merge(Ini("[Audio]\nvolume=7\n"), SettingsManager::DoNotPersist);
    EXPECT_EQ(persister.saveCount, 0);
    merge(Ini("[SecureKeys]\nkey=mine\n"), 0);
    EXPECT_EQ(persister.saveCount, 1);
    EXPECT_EQ(UserLayer(store), Ini("[SecureKeys]\nkey=mine\n"));
    EXPECT_EQ(All(store), With("[Audio]\nvolume=7\n[SecureKeys]\nkey=mine\n"));
    EXPECT_TRUE(callback.GetChanges().empty());
}

TEST_F(SettingsManagerTest, TestAndMergeMergesWhenAllExpectedValuesAreThere)
{
    EXPECT_TRUE(store.TestAndMerge(Ini("[Audio]\nvolume=5\nmute=no\n"), Ini("[Audio]\nvolume=6\n")));
    EXPECT_EQ(All(store), With("[Audio]\nvolume=6\n"));
    EXPECT_EQ(UserLayer(store), Ini("[Audio]\nvolume=6\n"));
    EXPECT_EQ(persister.saveCount, 1);
}

TEST_F(SettingsManagerTest, TestAndMergeChangesNothingWhenOneExpectedValueDiffers)
{
    RecordingCallback callback;
    store.Subscribe(&callback, "*");
    for (const std::string expected : {"[Audio]\nvolume=5\nmute=yes\n", "[Audio]\nvolume=5\nmissing=\n", "[X]\ny=1\n"})
    {
        SCOPED_TRACE(expected);
        EXPECT_FALSE(store.TestAndMerge(Ini(expected), Ini("[Audio]\nvolume=6\n")));
        EXPECT_EQ(All(store), With(""));
        EXPECT_TRUE(UserLayer(store).empty());
        EXPECT_EQ(persister.saveCount, 0);
        EXPECT_TRUE(callback.GetChanges().empty());
    }
}

TEST_F(SettingsManagerTest, TestAndMergeWithNothingExpectedMerges)
{
    EXPECT_TRUE(store.TestAndMerge(IniFile(), Ini("[A]\n")));
    EXPECT_TRUE(store.TestAndMerge(Ini("[GroupWithoutKeys]\n"), Ini("[B]\n")));
    EXPECT_EQ(UserLayer(store), Ini("[A]\n[B]\n"));
}

TEST_F(SettingsManagerTest, TestAndMergeSeesRestrictedAndUnpersistedValuesButChangesNoRestrictedOnes)
{
    store.MergeSettings(Ini("[State]\nx=1\n"), SettingsManager::DoNotPersist);
    EXPECT_TRUE(store.TestAndMerge(Ini("[SecureKeys]\nkey=secret\n[State]\nx=1\n"),
                                   Ini("[SecureKeys]\nkey=mine\n[Audio]\nvolume=6\n")));
    EXPECT_EQ(All(store), With("[State]\nx=1\n[Audio]\nvolume=6\n"));
    EXPECT_EQ(UserLayer(store), Ini("[Audio]\nvolume=6\n"));
}

TEST_F(SettingsManagerTest, AnOverwriteReplacesWholeGroups)
{
    store.MergeSettings(Ini("[Audio]\nextra=1\n"), 0);
    store.OverwriteSettings("Audio", Ini("[Audio]\nvolume=9\n"));
    IniFile audio;
    store.GetGroups(audio, "Audio");
    EXPECT_EQ(audio, Ini("[Audio]\nvolume=9\n"));
    EXPECT_EQ(UserLayer(store)["Audio"], Ini("[Audio]\nvolume=9\n")["Audio"]);
    EXPECT_EQ(persister.saveCount, 2);
    EXPECT_EQ(persister.user, UserLayer(store));
}

TEST_F(SettingsManagerTest, AnOverwriteOfAPatternErasesWhatItMatchesButNoRestrictedGroupAndRecordsThePattern)
{
    store.MergeSettings(Ini("[Net/Eth0]\nmode=fixed\n[Net/Usb0]\nx=1\n"), 0);
    store.OverwriteSettings("Net/*", Ini("[Net/Eth1]\nmode=dhcp\n[Net/SecureVpn]\nx=1\n"));
    IniFile net;
    store.GetGroups(net, "Net/*");
    EXPECT_EQ(net, Ini("[Net/Eth1]\nmode=dhcp\n[Net/Trusted]\nca=root\n"));
    EXPECT_EQ(Recorded(store), (GroupNameCollection{"Net/*"}));

    const SettingsManager reloaded(&persister, &loader, nullptr, false);
    EXPECT_EQ(All(reloaded), All(store));
}

TEST_F(SettingsManagerTest, AnOverwriteMergesReplacementsThatWereNotSelected)
{
    store.OverwriteSettings("Net/Eth0", Ini("[Audio]\nvolume=9\n"));
    EXPECT_EQ(
        All(store),
        Ini("[Audio]\nvolume=9\nmute=no\n[Net/Trusted]\nca=root\n[Net/Wlan0]\nmode=off\n[SecureKeys]\nkey=secret\n"));
}

TEST(SettingsManagerFloodTest, AnOverwriteOfVeryManyNamesDoesNotHoldUpTheStore)
{
    constexpr int names = 100'000;  // one by one against the record, these would take minutes
    SettingsManager store;
    GroupNameCollection groups;
    for (int i = 0; i < names; ++i)
    {
        groups.insert(std::to_string(i));
    }
    store.OverwriteSettings(groups, IniFile());
    store.OverwriteSettings(groups, IniFile());
    EXPECT_EQ(Recorded(store).size(), groups.size());
}

TEST_F(SettingsManagerTest, AnOverwriteRecordsEveryEntryOnceAlsoOneThatMatchesNothing)
{
    store.OverwriteSettings("Audio", IniFile());
    store.OverwriteSettings(GroupNameCollection{"Audio", "Missing", "None/*", "SecureKeys"}, IniFile());
    EXPECT_EQ(Recorded(store), (GroupNameCollection{"Audio", "Missing", "None/*", "SecureKeys"}));
    EXPECT_TRUE(All(store).HasGroup("SecureKeys"));
    EXPECT_FALSE(All(store).HasGroup(DeletedGroups));
}

TEST_F(SettingsManagerTest, AnErasedGroupsDefaultsStayAwayAfterAReloadAndItsNewContentStays)
{
    store.OverwriteSettings("Audio", IniFile());
    EXPECT_FALSE(All(SettingsManager(&persister, &loader, nullptr, false)).HasGroup("Audio"));

    store.MergeSettings(Ini("[Audio]\nvolume=1\n"), 0);
    const SettingsManager reloaded(&persister, &loader, nullptr, false);
    IniFile audio;
    reloaded.GetGroups(audio, "Audio");
    EXPECT_EQ(audio, Ini("[Audio]\nvolume=1\n"));
}

TEST_F(SettingsManagerTest, AnOverwriteOfNothingMergesAndSaves)
{
    store.OverwriteSettings(GroupNameCollection(), Ini("[A]\nx=1\n"));
    EXPECT_EQ(UserLayer(store), Ini("[A]\nx=1\n"));
    EXPECT_EQ(persister.saveCount, 1);
}

TEST_F(SettingsManagerTest, ARestoreBringsDefaultsBackAndWritesThemIntoTheUserLayer)
{
    store.MergeSettings(Ini("[Audio]\nvolume=9\nextra=1\n[Net/Eth0]\nmode=fixed\n"), 0);
    store.RestoreToDefaults(MatcherOf({"Audio"}));
    EXPECT_EQ(All(store), With("[Net/Eth0]\nmode=fixed\n"));
    EXPECT_EQ(UserLayer(store), Ini("[Audio]\nvolume=5\nmute=no\n[Net/Eth0]\nmode=fixed\n"));
    EXPECT_EQ(persister.user, UserLayer(store));
    EXPECT_EQ(persister.saveCount, 2);
}

TEST_F(SettingsManagerTest, ARestoreOfAGroupThatNobodyChangedCopiesItsDefaultsIntoTheUserLayer)
{
    store.RestoreToDefaults(MatcherOf({"Net/*"}));
    EXPECT_EQ(UserLayer(store), Ini("[Net/Eth0]\nmode=dhcp\n[Net/Wlan0]\nmode=off\n"));
    EXPECT_EQ(persister.saveCount, 1);
    EXPECT_EQ(All(store), With(""));
}

TEST_F(SettingsManagerTest, ARestoreRemovesUserGroupsWithoutDefaults)
{
    store.MergeSettings(Ini("[Mine]\nx=1\n"), 0);
    store.RestoreToDefaults(MatcherOf({"M*"}));
    EXPECT_EQ(All(store), With(""));
    EXPECT_TRUE(UserLayer(store).empty());
}

TEST_F(SettingsManagerTest, ARestoreOnlyMergesOverWhatWasNeverChangedToLast)
{
    store.MergeSettings(Ini("[Audio]\nvolume=9\nextra=1\n[State]\nx=1\n"), SettingsManager::DoNotPersist);
    store.RestoreToDefaults(MatcherOf({"*"}));
    EXPECT_EQ(All(store), With("[Audio]\nextra=1\n[State]\nx=1\n"));
    EXPECT_EQ(UserLayer(store), Defaults());
}

TEST_F(SettingsManagerTest, ARestoreReadsTheDefaultsAnew)
{
    persister.defaults = {Ini("[Audio]\nvolume=7\n")};
    store.MergeSettings(Ini("[Audio]\nvolume=9\n"), 0);
    store.RestoreToDefaults(MatcherOf({"Audio"}));
    IniFile audio;
    store.GetGroups(audio, "Audio");
    EXPECT_EQ(audio, Ini("[Audio]\nvolume=7\n"));
}

TEST_F(SettingsManagerTest, ARestoreOfNothingSavesAndChangesNothing)
{
    store.RestoreToDefaults(GroupNameMatcher());
    EXPECT_EQ(persister.saveCount, 1);
    EXPECT_TRUE(UserLayer(store).empty());
    EXPECT_EQ(All(store), With(""));
}

// Meant: the record drops the defaults again at the next load, and the copies in the user layer bring the values back.
TEST_F(SettingsManagerTest, ARestoreOfAnErasedGroupLeavesTheRecordAndTheValuesSurviveAReload)
{
    store.OverwriteSettings("Audio", IniFile());
    store.RestoreToDefaults(MatcherOf({"Audio"}));
    EXPECT_EQ(Recorded(store), (GroupNameCollection{"Audio"}));
    EXPECT_EQ(All(store), With(""));

    persister.defaults = {Ini("[Audio]\nvolume=7\nnew=1\n")};
    IniFile audio;
    SettingsManager(&persister, &loader, nullptr, false).GetGroups(audio, "Audio");
    EXPECT_EQ(audio, Ini("[Audio]\nvolume=5\nmute=no\n"));
}

TEST_F(SettingsManagerTest, RestoredDefaultsAreNotFilteredForRestrictedGroups)
{
    persister.defaults.push_back(Ini("[SecureDefault]\nx=1\n"));
    store.RestoreToDefaults(MatcherOf({"SecureDefault"}));
    EXPECT_EQ(All(store), With("[SecureDefault]\nx=1\n"));
    EXPECT_EQ(UserLayer(store), Ini("[SecureDefault]\nx=1\n"));
    EXPECT_FALSE(All(SettingsManager(&persister, &loader, nullptr, false)).HasGroup("SecureDefault"));
}

TEST_F(SettingsManagerTest, ARestoreWithoutPersisterDoesNothingAndNotifiesNobody)
{
    SettingsManager unstored;
    RecordingCallback callback;
    unstored.MergeSettings(Ini("[A]\nx=1\n"), 0);
    unstored.Subscribe(&callback, "*");
    unstored.RestoreToDefaults(MatcherOf({"*"}));
    EXPECT_EQ(All(unstored), Ini("[A]\nx=1\n"));
    EXPECT_EQ(UserLayer(unstored), Ini("[A]\nx=1\n"));
    EXPECT_TRUE(callback.GetChanges().empty());
}

// Meant: a claim, once made, holds as long as the store lives, so that what came before it is not read again.
TEST(SettingsManagerPriorityTest, ARestoreMeetsTheClaimsOfTheFirstLoad)
{
    RecordingPersister persister;
    persister.defaults = {Ini("[A]\nearly=1\n"), Ini("[A]\nlate=1\n[KorloSettings/LoadPriority]\nA=5\n")};
    SettingsManager store(&persister, nullptr, nullptr, false);
    EXPECT_EQ(All(store), Ini("[A]\nearly=1\nlate=1\n"));

    store.MergeSettings(Ini("[A]\nuser=1\n"), 0);
    store.RestoreToDefaults(MatcherOf({"A"}));
    EXPECT_EQ(All(store), Ini("[A]\nlate=1\n"));
    EXPECT_EQ(All(SettingsManager(&persister, nullptr, nullptr, false)), Ini("[A]\nearly=1\nlate=1\n"));
}

TEST(SettingsManagerPriorityTest, TheClaimingGroupIsNotRestored)
{
    RecordingPersister persister;
    persister.defaults = {Ini("[A]\n[KorloSettings/LoadPriority]\nA=5\n")};
    SettingsManager store(&persister, nullptr, nullptr, false);
    store.RestoreToDefaults(MatcherOf({"*"}));
    EXPECT_EQ(UserLayer(store), Ini("[A]\n"));
}

/// Every change to last, by a save that fails.
TEST_F(SettingsManagerTest, AChangeWhoseSaveThrowsIsMadeButNotAnnounced)
{
    RecordingCallback callback;
    store.Subscribe(&callback, "*");
    persister.beforeSave = [] { throw std::runtime_error("disk full"); };

    EXPECT_THROW(store.MergeSettings(Ini("[Audio]\nvolume=6\n"), 0), std::runtime_error);
    EXPECT_EQ(UserLayer(store), Ini("[Audio]\nvolume=6\n"));
    EXPECT_THROW(store.TestAndMerge(Ini("[Audio]\nvolume=6\n"), Ini("[Audio]\nvolume=7\n")), std::runtime_error);
    EXPECT_EQ(All(store), With("[Audio]\nvolume=7\n"));
    EXPECT_THROW(store.OverwriteSettings("Net/*", IniFile()), std::runtime_error);
    EXPECT_FALSE(All(store).HasGroup("Net/Eth0"));
    EXPECT_THROW(store.RestoreToDefaults(MatcherOf({"Audio", "Net/*"})), std::runtime_error);
    EXPECT_EQ(All(store), With(""));

    EXPECT_TRUE(callback.GetChanges().empty());
    EXPECT_TRUE(persister.user.empty());
}

TEST_F(SettingsManagerTest, TheLocksAreReleasedWhenAPersisterThrows)
{
    persister.beforeSave = [] { throw std::runtime_error("disk full"); };
    EXPECT_THROW(store.MergeSettings(Ini("[A]\n"), 0), std::runtime_error);
    EXPECT_THROW(store.RestoreToDefaults(MatcherOf({"A"})), std::runtime_error);
    persister.beforeSave = nullptr;
    persister.beforeLoadDefaults = [] { throw std::runtime_error("unreadable"); };
    EXPECT_THROW(store.RestoreToDefaults(MatcherOf({"Audio"})), std::runtime_error);
    persister.beforeLoadDefaults = nullptr;

    store.MergeSettings(Ini("[B]\n"), 0);
    store.RestoreToDefaults(MatcherOf({"Audio"}));
    EXPECT_EQ(All(store), With("[B]\n"));
}

TEST_F(SettingsManagerTest, ARestoreWhoseDefaultsCannotBeReadChangesNothing)
{
    RecordingCallback callback;
    store.MergeSettings(Ini("[Audio]\nvolume=9\n"), 0);
    store.Subscribe(&callback, "*");
    persister.beforeLoadDefaults = [] { throw std::runtime_error("unreadable"); };
    EXPECT_THROW(store.RestoreToDefaults(MatcherOf({"*"})), std::runtime_error);
    EXPECT_EQ(All(store), With("[Audio]\nvolume=9\n"));
    EXPECT_EQ(persister.saveCount, 1);
    EXPECT_TRUE(callback.GetChanges().empty());
}

}  // namespace
}  // namespace korlo::settings::server
