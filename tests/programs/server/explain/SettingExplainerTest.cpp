// Why a setting has its value: each rule by which layers are loaded, and what changes since.
#include "explain/SettingExplainer.h"

#include <atomic>
#include <filesystem>
#include <string>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ExplainFixture.h"
#include "settings/common/GroupNameMatcher.h"
#include "support/Documents.h"
#include "support/LogCapture.h"

namespace korlo::daemon
{
namespace
{

using settings::server::SettingsManager;
using testing::HasSubstr;

class SettingExplainerTest : public testing::Test, protected ExplainedStore
{
protected:
    static void Restore(SettingsManager& store, const std::string& nameOrPattern)
    {
        settings::common::GroupNameMatcher matcher;
        matcher.AddNameOrPattern(nameOrPattern);
        store.RestoreToDefaults(matcher);
    }
};

TEST_F(SettingExplainerTest, ALaterDefaultFileOverridesAnEarlierOne)
{
    Write("d/10.ini", "[A]\nk=1\nother=1\n");
    Write("d/20.ini", "# comment\n\n[B]\nk=x\n[A]\nk=2\n");
    Start();
    EXPECT_EQ(Tell({"A", "k"}), "- default d/10.ini:2 1: overridden by d/20.ini:6\n"
                                "* default d/20.ini:6 2: it counts\n");
    EXPECT_EQ(Tell({"A", "other"}), "* default d/10.ini:3 1: it counts\n");
}

TEST_F(SettingExplainerTest, TheLastOfSeveralLinesInAFileCounts)
{
    Write("d/10.ini", "[A]\nk=1\nk=2\n[B]\nk=x\n[A]\nk=3\n");
    Start();
    EXPECT_EQ(Tell({"A", "k"}), "- default d/10.ini:2 1: overridden by d/10.ini:3\n"
                                "- default d/10.ini:3 2: overridden by d/10.ini:7\n"
                                "* default d/10.ini:7 3: it counts\n");
}

TEST_F(SettingExplainerTest, TheUserLayerOverridesTheDefaults)
{
    Write("d/10.ini", "[A]\nk=1\n");
    Start().MergeSettings(Ini("[A]\nk=2\n"), 0);
    EXPECT_EQ(Tell({"A", "k"}), "- default d/10.ini:2 1: overridden by user.ini:2\n"
                                "* user user.ini:2 2: it counts\n");
}

TEST_F(SettingExplainerTest, RestrictedFilesOverrideTheUserLayer)
{
    Write("d/10.ini", "[A]\nk=1\n");
    Write("user.ini", "[A]\nk=2\n");
    Write("r/10.ini", "[A]\nk=3\n");
    Start();
    EXPECT_EQ(Tell({"A", "k"}), "- default d/10.ini:2 1: overridden by user.ini:2\n"
                                "- user user.ini:2 2: overridden by r/10.ini:2\n"
                                "* restricted r/10.ini:2 3: it counts\n");
}

TEST_F(SettingExplainerTest, AClientMayChangeWhatARestrictedFileBroughtUntilTheNextStart)
{
    Write("r/10.ini", "[A]\nk=3\n");
    Start().MergeSettings(Ini("[A]\nk=4\n"), 0);
    EXPECT_EQ(Tell({"A", "k"}),
              "* user user.ini:2 4: it counts\n"
              "- restricted r/10.ini:2 3: a client has changed it since it was loaded; it counts from the next start "
              "on\n");
    Start();
    EXPECT_EQ(Tell({"A", "k"}), "- user user.ini:2 4: overridden by r/10.ini:2\n"
                                "* restricted r/10.ini:2 3: it counts\n");
}

TEST_F(SettingExplainerTest, ARestrictedGroupIsTakenFromRestrictedFilesAlone)
{
    Write("d/10.ini", "[DeviceSecure]\nk=1\n");
    Write("user.ini", "[DeviceSecure]\nk=2\n");
    Start();
    const std::string refused =
        ": not taken: the group is restricted, and only the files of --restricted give it values\n";
    EXPECT_EQ(Tell({"DeviceSecure", "k"}), "- default d/10.ini:2 1" + refused + "- user user.ini:2 2" + refused);
    Write("r/10.ini", "[DeviceSecure]\nk=3\n");
    Write("r/20.ini", "[DeviceSecure]\nk=4\n");
    Start();
    EXPECT_EQ(Tell({"DeviceSecure", "k"}), "- default d/10.ini:2 1" + refused + "- user user.ini:2 2" + refused +
                                               "- restricted r/10.ini:2 3: overridden by r/20.ini:2\n"
                                               "* restricted r/20.ini:2 4: it counts\n");
}

TEST_F(SettingExplainerTest, TheGroupThatTellsOfRefusalsIsLeftOutWithAccessRules)
{
    Write("r/10.ini", "[KorloSettings/Trusted/Refused]\nk=1\n");
    Start();
    EXPECT_EQ(Tell({"KorloSettings/Trusted/Refused", "k"}), "* restricted r/10.ini:2 1: it counts\n");
    clientsAreRefused = true;
    const LogCapture log;
    Start();
    EXPECT_EQ(Tell({"KorloSettings/Trusted/Refused", "k"}),
              "- restricted r/10.ini:2 1: not taken: with access rules the group tells a client what was refused to "
              "it\n");
}

TEST_F(SettingExplainerTest, AClaimDropsTheGroupFromLaterFilesThatClaimItLess)
{
    Write("d/10.ini", "[A]\nk=1\n[KorloSettings/LoadPriority]\nA=5\n");
    Write("d/20.ini", "[A]\nk=2\n");
    Write("d/30.ini", "[A]\nk=3\n[KorloSettings/LoadPriority]\nA=4\n");
    Start();
    EXPECT_EQ(Tell({"A", "k"}),
              "* default d/10.ini:2 1: it counts\n"
              "- default d/20.ini:2 2: dropped: d/10.ini:4 claims the group with priority 5, and this file with none\n"
              "- default d/30.ini:2 3: dropped: d/10.ini:4 claims the group with priority 5, and this file with 4\n");
}

TEST_F(SettingExplainerTest, AnEqualOrStrongerClaimCounts)
{
    Write("d/10.ini", "[A]\nk=1\n[KorloSettings/LoadPriority]\nA=-5\n");
    Write("d/20.ini", "[A]\nk=2\n[KorloSettings/LoadPriority]\nA=-5\n");
    Write("d/30.ini", "[A]\nk=3\n[KorloSettings/LoadPriority]\nA=6\n");
    Write("d/40.ini", "[A]\nk=4\n[KorloSettings/LoadPriority]\nA=5\n");
    Start();
    EXPECT_EQ(Tell({"A", "k"}),
              "- default d/10.ini:2 1: overridden by d/20.ini:2\n"
              "- default d/20.ini:2 2: overridden by d/30.ini:2\n"
              "* default d/30.ini:2 3: it counts\n"
              "- default d/40.ini:2 4: dropped: d/30.ini:4 claims the group with priority 6, and this file with 5\n");
}

TEST_F(SettingExplainerTest, AClaimThatIsNoNumberIsNone)
{
    Write("d/10.ini", "[A]\nk=1\n[KorloSettings/LoadPriority]\nA=high\n");
    Write("d/20.ini", "[A]\nk=2\n[KorloSettings/LoadPriority]\nA=7\nA=\n");
    Write("d/30.ini", "[A]\nk=3\n");
    Start();
    EXPECT_THAT(Tell({"A", "k"}), HasSubstr("* default d/30.ini:2 3: it counts\n"));
}

TEST_F(SettingExplainerTest, AFileBeforeTheClaimKeepsItsKeysUntilARestore)
{
    Write("d/10.ini", "[A]\nk=1\nl=1\n");
    Write("d/20.ini", "[A]\nl=2\n[KorloSettings/LoadPriority]\nA=5\n");
    SettingsManager& store = Start();
    EXPECT_EQ(Tell({"A", "k"}), "* default d/10.ini:2 1: it counts\n");
    EXPECT_EQ(Tell({"A", "l"}), "- default d/10.ini:3 1: overridden by d/20.ini:2\n"
                                "* default d/20.ini:2 2: it counts\n");
    store.MergeSettings(Ini("[A]\nx=1\n"), 0);
    Restore(store, "A");
    EXPECT_EQ(Tell({"A", "k"}), "- default d/10.ini:2 1: a client has removed it since it was loaded; it counts from "
                                "the next start on\n");
}

TEST_F(SettingExplainerTest, AClaimOfADefaultFileDropsTheGroupFromARestrictedOne)
{
    Write("d/10.ini", "[A]\nk=1\n[KorloSettings/LoadPriority]\nA=5\nDeviceSecure=5\n");
    Write("r/10.ini", "[A]\nk=2\n[DeviceSecure]\nk=3\n");
    Start();
    EXPECT_EQ(Tell({"A", "k"}),
              "* default d/10.ini:2 1: it counts\n"
              "- restricted r/10.ini:2 2: dropped: d/10.ini:4 claims the group with priority 5, and this file with "
              "none\n");
    EXPECT_EQ(Tell({"DeviceSecure", "k"}), "* restricted r/10.ini:4 3: it counts\n");
}

TEST_F(SettingExplainerTest, TheUserLayerHeedsNoClaims)
{
    Write("d/10.ini", "[A]\nk=1\n[KorloSettings/LoadPriority]\nA=5\n");
    Write("user.ini", "[A]\nk=2\n[KorloSettings/LoadPriority]\nA=6\n");
    Start();
    EXPECT_THAT(Tell({"A", "k"}), HasSubstr("* user user.ini:2 2: it counts\n"));
    EXPECT_EQ(Tell({"KorloSettings/LoadPriority", "A"}),
              "- default d/10.ini:4 5: not taken: what this group holds are claims, and no settings\n"
              "* user user.ini:4 6: it counts\n");
}

TEST_F(SettingExplainerTest, AnErasedDefaultNamesTheEntryOfTheRecord)
{
    Write("d/10.ini", "[Net/Wifi]\nk=1\n");
    SettingsManager& store = Start();
    store.OverwriteSettings("Net/Eth", Ini(""));
    store.OverwriteSettings("Net/W*", Ini(""));
    const std::string erased = "- default d/10.ini:2 1: erased: the record of erased groups has 2=Net/W* in line 3 of "
                               "the user file\n";
    EXPECT_EQ(Tell({"Net/Wifi", "k"}), erased);
    Start();
    EXPECT_EQ(Tell({"Net/Wifi", "k"}), erased);
}

TEST_F(SettingExplainerTest, AReplacedGroupIsErasedAndSet)
{
    Write("d/10.ini", "[A]\nk=1\ngone=1\n");
    Start().OverwriteSettings("A", Ini("[A]\nk=2\n"));
    EXPECT_EQ(Tell({"A", "k"}),
              "- default d/10.ini:2 1: erased: the record of erased groups has 1=A in line 4 of the user file\n"
              "* user user.ini:2 2: it counts\n");
    EXPECT_THAT(Tell({"A", "gone"}), HasSubstr("- default d/10.ini:3 1: erased: "));
}

TEST_F(SettingExplainerTest, WhatTheRecordErasesOfARestrictedFileComesBack)
{
    Write("r/10.ini", "[A]\nk=1\n");
    Start().OverwriteSettings("A", Ini(""));
    EXPECT_EQ(Tell({"A", "k"}), "- restricted r/10.ini:2 1: a client has removed it since it was loaded; it counts "
                                "from the next start on\n");
    Start();
    EXPECT_EQ(Tell({"A", "k"}), "* restricted r/10.ini:2 1: it counts\n");
}

TEST_F(SettingExplainerTest, TheRecordItselfIsNoSetting)
{
    Write("d/10.ini", "[KorloSettings/Data/DeletedGroups]\n1=B\n");
    Write("user.ini", "[KorloSettings/Data/DeletedGroups]\n1=A\n");
    Start();
    EXPECT_EQ(Tell({"KorloSettings/Data/DeletedGroups", "1"}),
              "- default d/10.ini:2 B: not taken: the record of erased groups belongs to the user layer\n"
              "- user user.ini:2 A: not taken: the record of erased groups is kept out of the settings\n");
}

TEST_F(SettingExplainerTest, AnEntryThatAClientMergedErasesFromTheNextStartOn)
{
    Write("d/10.ini", "[A]\nk=1\n");
    Start().MergeSettings(Ini("[KorloSettings/Data/DeletedGroups]\n7=A\n"), 0);
    EXPECT_EQ(Tell({"A", "k"}), "* default d/10.ini:2 1: it counts until the next start; then it is erased: the record "
                                "of erased groups has 7=A in line 2 of the user file\n");
    EXPECT_EQ(Tell({"KorloSettings/Data/DeletedGroups", "7"}), "* user user.ini:2 A: it counts\n");
}

TEST_F(SettingExplainerTest, ARestoreLeavesACopy)
{
    Write("d/10.ini", "[A]\nk=1\n");
    SettingsManager& store = Start();
    store.OverwriteSettings("A", Ini(""));
    Restore(store, "A");
    EXPECT_EQ(Tell({"A", "k"}),
              "- default d/10.ini:2 1: erased: the record of erased groups has 1=A in line 4 of the user file\n"
              "* user user.ini:2 1: it counts; it is the default, too, of which a restore leaves such a copy\n");
}

TEST_F(SettingExplainerTest, AnUnsavedChangeOverridesAllAndIsGoneAtTheNextStart)
{
    Write("d/10.ini", "[A]\nk=1\n");
    Write("user.ini", "[A]\nk=2\n");
    Write("r/10.ini", "[A]\nk=3\n");
    Start().MergeSettings(Ini("[A]\nk=4\nnew=5\n"), SettingsManager::DoNotPersist);
    const std::string counts = ": it counts, and is gone at the next start: it was changed without persisting\n";
    EXPECT_EQ(Tell({"A", "k"}), "- default d/10.ini:2 1: overridden by user.ini:2\n"
                                "- user user.ini:2 2: overridden by r/10.ini:2\n"
                                "- restricted r/10.ini:2 3: overridden by a change that was not persisted\n"
                                "* unsaved 4" +
                                    counts);
    EXPECT_EQ(Tell({"A", "new"}), "* unsaved 5" + counts);
}

TEST_F(SettingExplainerTest, AKeyThatNobodyNamesHasNoOccurrence)
{
    Write("d/10.ini", "[A]\nk=1\n");
    Start();
    EXPECT_EQ(Tell({"A", "none"}), "");
    EXPECT_EQ(Tell({"None", "k"}), "");
    EXPECT_EQ(Tell({"*", "k"}), "") << "a pattern is a name like any other";
}

TEST_F(SettingExplainerTest, AnyBytesCanBeAskedFor)
{
    const std::string odd("]\"\\ a\n\r\x00\xFF=", 10);
    core::IniFile document;
    document.SetValue(odd, odd, odd);
    document.SetValue("", "", "empty");
    Write("d/10.ini", TextOf(document));
    Start();
    const Explanation explanation = Explain({odd, odd});
    ASSERT_EQ(explanation.occurrences.size(), 1u);
    EXPECT_EQ(explanation.winner, 0u);
    EXPECT_EQ(explanation.occurrences[0].value, odd);
    EXPECT_EQ(Tell({"", ""}), "* default d/10.ini:2 empty: it counts\n");
}

TEST_F(SettingExplainerTest, AFileThatWasChangedSinceTheLoadIsTold)
{
    Write("d/10.ini", "[A]\nk=1\n");
    SettingsManager& store = Start();
    Write("d/10.ini", "[A]\nk=other\nnew=1\n");
    EXPECT_EQ(Tell({"A", "k"}),
              "- default d/10.ini:2 other: the file was changed since it was loaded; it counts from the next start on\n"
              "* default 1: it counts: d/10.ini held it and was changed since it was loaded, or a client changed it "
              "without persisting\n");
    EXPECT_EQ(Tell({"A", "new"}),
              "- default d/10.ini:3 1: the file was changed since it was loaded; it counts from the next start on\n");
    store.MergeSettings(Ini("[A]\nk=2\n"), 0);
    EXPECT_EQ(Tell({"A", "k"}), "- default d/10.ini:2 other: overridden by user.ini:2\n"
                                "* user user.ini:2 2: it counts\n");
}

TEST_F(SettingExplainerTest, AFileThatCameSinceTheLoadCountsFromTheNextStartOn)
{
    Write("d/10.ini", "[A]\nk=1\n");
    Start();
    Write("d/20.ini", "[A]\nk=2\n");
    EXPECT_EQ(Tell({"A", "k"}),
              "* default d/10.ini:2 1: it counts\n"
              "- default d/20.ini:2 2: the file was changed since it was loaded; it counts from the next start on\n");
}

TEST_F(SettingExplainerTest, AChangeOfAnotherFileDoesNotMakeAnUnsavedChangeADefault)
{
    Write("d/10.ini", "[A]\nk=1\n");
    Write("d/20.ini", "[B]\nk=1\n");
    Start().MergeSettings(Ini("[A]\nk=7\n"), SettingsManager::DoNotPersist);
    Write("d/20.ini", "[B]\nk=22\n");
    EXPECT_THAT(Tell({"A", "k"}), HasSubstr("* unsaved 7: "));
}

TEST_F(SettingExplainerTest, ARestrictedFileThatWasChangedIsTold)
{
    Write("r/10.ini", "[DeviceSecure]\nk=1\n[A]\nk=1\n");
    Start();
    Write("r/10.ini", "[DeviceSecure]\nk=22\n[A]\nk=22\n");
    for (const std::string group : {"DeviceSecure", "A"})
    {
        EXPECT_THAT(Tell({group, "k"}), HasSubstr("* restricted 1: it counts: r/10.ini held it and was changed"));
    }
}

TEST_F(SettingExplainerTest, FilesThatAreGoneAreTold)
{
    Write("d/10.ini", "[A]\nk=1\n[B]\nk=1\n");
    Write("d/20.ini", "[B]\nk=2\n");
    Start();
    std::filesystem::remove(PathOf("d/10.ini"));
    EXPECT_THAT(Tell({"A", "k"}), testing::AllOf(HasSubstr("- default d/10.ini: Failed to open"),
                                                 HasSubstr("* default 1: it counts: d/10.ini held it")));
    EXPECT_THAT(Tell({"B", "k"}), HasSubstr("* default d/20.ini:2 2: it counts\n"));
    std::filesystem::remove_all(PathOf("d"));
    std::filesystem::remove_all(PathOf("r"));
    EXPECT_THAT(Tell({"B", "k"}), testing::AllOf(HasSubstr("- default d/10.ini: "), HasSubstr("- default d/20.ini: "),
                                                 HasSubstr("* default 2: it counts: d held it")));
}

TEST_F(SettingExplainerTest, AUserFileThatIsNotWhatTheStoreHoldsIsTold)
{
    Write("user.ini", "[A]\nk=1\n");
    Start();
    const std::string reason = ": a save is due or has failed, or somebody changed the file\n";
    const std::string memory = "* user 1: it counts; the user file does not hold it" + reason;
    Write("user.ini", "[A]\nk=2\n[B]\nk=3\n");
    EXPECT_EQ(Tell({"A", "k"}), "- user user.ini:2 2: not in the store, which holds another value" + reason + memory);
    EXPECT_EQ(Tell({"B", "k"}), "- user user.ini:4 3: not in the store, which holds none" + reason);
    std::filesystem::remove(PathOf("user.ini"));
    EXPECT_EQ(Tell({"A", "k"}), memory);
    std::filesystem::create_directory(PathOf("user.ini"));
    EXPECT_THAT(Tell({"A", "k"}), testing::AllOf(HasSubstr("- user user.ini: Failed to"), HasSubstr(memory)));
}

TEST_F(SettingExplainerTest, AUserLayerWithoutFileIsExplained)
{
    user.clear();
    Start().MergeSettings(Ini("[A]\nk=1\n"), 0);
    EXPECT_THAT(Tell({"A", "k"}), HasSubstr("* user 1: it counts; "));
}

TEST_F(SettingExplainerTest, AStoreThatChangesMeanwhileIsExplainedAsItWasAtOneMoment)
{
    Write("d/10.ini", "[A]\nk=0\n");
    SettingsManager& store = Start();
    std::atomic<bool> isOver = false;
    std::thread changer([&] {
        for (int count = 1; !isOver; ++count)
        {
            store.MergeSettings(Ini("[A]\nk=" + std::to_string(count) + '\n'), SettingsManager::DoNotPersist);
        }
    });
    for (int count = 0; count < 20; ++count)
    {
        const Explanation explanation = Explain({"A", "k"});
        EXPECT_TRUE(explanation.winner.has_value());
    }
    isOver = true;
    changer.join();
}

TEST_F(SettingExplainerTest, NothingThatIsExplainedIsLogged)
{
    Write("d/10.ini", "[A]\nk=hush-default\n[KorloSettings/LoadPriority]\nA=5\n");
    Write("d/20.ini", "[A]\nk=hush-dropped\nno sense hush-line\n");
    Write("r/10.ini", "[DeviceSecure]\nk=hush-restricted\n");
    Start().MergeSettings(Ini("[A]\nk=hush-user\n"), 0);
    const LogCapture log;
    Tell({"A", "k"});
    Tell({"DeviceSecure", "k"});
    for (const std::string& message : log.GetMessages())
    {
        EXPECT_THAT(message, testing::Not(HasSubstr("hush")));
    }
}

}  // namespace
}  // namespace korlo::daemon
