// The user file, its log and the generation before: what lies on the disk, and what a start makes of it.

#include "saving/UserFile.h"

#include <cerrno>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "saving/ChangeLog.h"
#include "support/FaultyFileSystem.h"
#include "support/Files.h"
#include "support/LogCapture.h"
#include "support/SavedStore.h"
#include "support/TemporaryFolder.h"

namespace korlo::daemon
{
namespace
{

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;
using testing::UnorderedElementsAre;

std::string FirstLineOver(const std::string& content)
{
    return ChangeLog::FirstLineFor(ContentMark::Of(content));
}

/// The log of a content, with a record for each document.
std::string LogOver(const std::string& content, const std::vector<std::string>& merged)
{
    std::string log = FirstLineOver(content);
    for (const std::string& document : merged)
    {
        log += ChangeLog::RecordOf({{}, Ini(document)});
    }
    return log;
}

class UserFileTest : public testing::Test
{
protected:
    UserFileTest() { _fileSystem.DoNotSync(); }

    /// What a start makes of what lies there.
    std::string LayerAfterStart(SaveBy saveBy = SaveBy::Appending)
    {
        return SavedStore(_path, saveBy, _fileSystem).GetLayer();
    }

    void Write(const std::string& content, const std::string& log, const std::string& previous = "",
               const std::string& previousLog = "")
    {
        for (const auto& [name, text] : {std::pair(_path, content), std::pair(_log, log),
                                         std::pair(_path + '~', previous), std::pair(_log + '~', previousLog)})
        {
            std::filesystem::remove(name);
            if (!text.empty())
            {
                WriteFile(name, text);
            }
        }
    }

    /// The calls since the last time.
    std::vector<std::string> NewCalls()
    {
        const std::vector<std::string>& all = _fileSystem.GetCalls();
        std::vector<std::string> calls(all.begin() + static_cast<std::ptrdiff_t>(_seen), all.end());
        _seen = all.size();
        return calls;
    }

    inline static const std::string A1 = "[A]\nk=1\n";
    inline static const std::string A2 = "[A]\nk=2\n";
    inline static const std::string A3 = "[A]\nk=3\n";
    inline static const std::string Long = "[Long]\nvalue=" + std::string(70'000, 'x') + '\n';

    TemporaryFolder _folder;
    const std::string _path = _folder.PathOf("user.ini");
    const std::string _log = _path + ".log";
    FaultyFileSystem _fileSystem;
    LogCapture _messages;
    std::size_t _seen = 0;
};

TEST_F(UserFileTest, TheFirstSaveWritesTheUserFileAndBeginsALog)
{
    SavedStore saved(_path, SaveBy::Appending, _fileSystem);
    EXPECT_THAT(NamesIn(_folder.GetPath()), IsEmpty());
    saved.Merge(A1);
    EXPECT_EQ(ContentOf(_path), A1);
    EXPECT_EQ(ContentOf(_log), FirstLineOver(A1));
    EXPECT_THAT(NamesIn(_folder.GetPath()), UnorderedElementsAre("user.ini", "user.ini.log"));
}

TEST_F(UserFileTest, AChangeIsOneRecordOneWriteAndOneSync)
{
    Write(A1, "");
    SavedStore saved(_path, SaveBy::Appending, _fileSystem);
    for (const std::string& change : {A2, A3})
    {
        NewCalls();
        saved.Merge(change);
        EXPECT_THAT(NewCalls(), ElementsAre("Write", "SyncData"));
    }
    EXPECT_EQ(ContentOf(_path), A1);
    EXPECT_EQ(ContentOf(_log), LogOver(A1, {A2, A3}));
}

TEST_F(UserFileTest, WhatIsStoredAlreadyIsNotAppended)
{
    Write(A1, "");
    SavedStore saved(_path, SaveBy::Appending, _fileSystem);
    NewCalls();
    saved.Merge(A1);
    EXPECT_THAT(NewCalls(), IsEmpty());
    EXPECT_EQ(saved.files.GetRecord().GetFigures().skipped, 1u);
}

TEST_F(UserFileTest, MergesRemovalsAndTheRecordOfErasedGroupsAreAllInTheLog)
{
    Write("[A]\nk=1\n[B]\nk=1\n", "");
    SavedStore saved(_path, SaveBy::Appending, _fileSystem);
    saved.Merge("[C]\nk=1\n");
    saved.store.OverwriteSettings("B", {});
    saved.store.OverwriteSettings("A", Ini("[A]\nj=1\n"));
    EXPECT_EQ(ContentOf(_path), "[A]\nk=1\n[B]\nk=1\n");
    EXPECT_EQ(LayerAfterStart(), saved.GetLayer());
    EXPECT_EQ(LayerAfterStart(), "[A]\nj=1\n[C]\nk=1\n[KorloSettings/Data/DeletedGroups]\n1=B\n2=A\n");
}

TEST_F(UserFileTest, AStartTakesTheLogAndGoesOnWithIt)
{
    Write(A1, LogOver(A1, {A2}));
    SavedStore saved(_path, SaveBy::Appending, _fileSystem);
    EXPECT_EQ(saved.GetLayer(), A2);
    saved.Merge(A3);
    EXPECT_EQ(ContentOf(_path), A1);
    EXPECT_EQ(ContentOf(_log), LogOver(A1, {A2, A3}));
    EXPECT_EQ(LayerAfterStart(), A3);
    EXPECT_THAT(_messages.GetMessages(), IsEmpty());
}

TEST_F(UserFileTest, WhatAStartHasReadIsSyncedBeforeItIsServed)
{
    Write(A1, LogOver(A1, {A2}));
    NewCalls();
    const SavedStore saved(_path, SaveBy::Appending, _fileSystem);
    const std::vector<std::string> calls = NewCalls();
    EXPECT_THAT(calls, testing::IsSupersetOf({"SyncData", "Sync", "SyncFolder"}));
}

TEST_F(UserFileTest, AStartThatReplacesFoldsTheLogAndNeedsItNoMore)
{
    Write(A1, LogOver(A1, {A2}));
    {
        SavedStore saved(_path, SaveBy::Replacing, _fileSystem);
        EXPECT_EQ(saved.GetLayer(), A2);
        EXPECT_EQ(ContentOf(_path), A2);
        EXPECT_THAT(NamesIn(_folder.GetPath()), UnorderedElementsAre("user.ini", "user.ini~", "user.ini.log~"));
        NewCalls();
        saved.Merge(A2);
        EXPECT_THAT(NewCalls(), IsEmpty()) << "it is known to be stored";
        saved.Merge(A3);
    }
    EXPECT_EQ(ContentOf(_path), A3);
    EXPECT_EQ(ContentOf(_path + '~'), A2);
    EXPECT_THAT(NamesIn(_folder.GetPath()), UnorderedElementsAre("user.ini", "user.ini~"));
    EXPECT_THAT(_messages.GetMessages(), IsEmpty());
}

TEST_F(UserFileTest, AnOrderlyEndFolds)
{
    Write(A1, "");
    SavedStore saved(_path, SaveBy::Appending, _fileSystem);
    saved.Merge(A2);
    saved.Finish();
    EXPECT_EQ(ContentOf(_path), A2);
    EXPECT_EQ(ContentOf(_path + '~'), A1);
    EXPECT_EQ(ContentOf(_log + '~'), LogOver(A1, {A2}));
    EXPECT_EQ(ContentOf(_log), std::nullopt);
}

TEST_F(UserFileTest, WithoutAChangeAnEndLeavesEverythingAsItWas)
{
    SavedStore(_path, SaveBy::Appending, _fileSystem).Finish();
    EXPECT_THAT(NamesIn(_folder.GetPath()), IsEmpty());

    Write(A1, "", A2, LogOver(A2, {A1}));
    SavedStore(_path, SaveBy::Appending, _fileSystem).Finish();
    EXPECT_EQ(ContentOf(_path), A1);
    EXPECT_EQ(ContentOf(_path + '~'), A2);
    EXPECT_THAT(NamesIn(_folder.GetPath()), UnorderedElementsAre("user.ini", "user.ini~", "user.ini.log~"));
}

TEST_F(UserFileTest, ALogThatOutgrows64KiBIsFoldedWithTheChangeThatMeetsIt)
{
    Write(A1, "");
    SavedStore saved(_path, SaveBy::Appending, _fileSystem);
    std::string value(30'000, 'x');
    saved.Merge("[B]\nk=" + value + '\n');
    value[0] = 'y';
    saved.Merge("[B]\nk=" + value + '\n');
    EXPECT_EQ(ContentOf(_path), A1);
    NewCalls();
    saved.Merge("[B]\nk=1" + value + '\n');
    EXPECT_THAT(NewCalls(), testing::Not(testing::Contains("SyncData"))) << "what is folded need not be synced twice";
    EXPECT_EQ(ContentOf(_path), A1 + "[B]\nk=1" + value + '\n');
    EXPECT_EQ(ContentOf(_log), FirstLineOver(*ContentOf(_path)));
    EXPECT_EQ(ContentOf(_path + '~'), A1);
    EXPECT_EQ(ChangeLog(*ContentOf(_log + '~')).GetRecords().size(), 3u);
    EXPECT_EQ(saved.files.GetRecord().GetFigures().log.folds, 1u);
    saved.Merge(A2);
    EXPECT_EQ(LayerAfterStart(), saved.GetLayer());
}

TEST_F(UserFileTest, ALogMayGrowAsLongAsItsUserFile)
{
    const std::string content = "[B]\nk=" + std::string(200'000, 'x') + '\n';
    Write(content, "");
    SavedStore saved(_path, SaveBy::Appending, _fileSystem);
    EXPECT_EQ(saved.files.GetRecord().GetFigures().log.limit, content.size());
    for (char c = 'a'; c < 'c'; ++c)
    {
        saved.Merge("[A]\nk=" + std::string(90'000, c) + '\n');
    }
    EXPECT_EQ(ContentOf(_path), content);
    saved.Merge("[A]\nk=" + std::string(90'000, 'c') + '\n');
    EXPECT_EQ(ContentOf(_path), saved.GetLayer());
}

TEST_F(UserFileTest, ARemovedUserFileIsAnEmptyLayerAndItsLogIsSetAside)
{
    for (const SaveBy saveBy : SaveByBoth)
    {
        Write("", LogOver(A1, {A2}), A1, LogOver(A1, {A3}));
        SavedStore saved(_path, saveBy, _fileSystem);
        EXPECT_EQ(saved.GetLayer(), "");
        EXPECT_EQ(ContentOf(_log + ".foreign"), LogOver(A1, {A2}));
        saved.Merge(A1);  // as it was once, so that a log of then would belong to it
        EXPECT_EQ(LayerAfterStart(saveBy), A1);
    }
    EXPECT_THAT(_messages.GetMessages(), testing::SizeIs(2));
    EXPECT_THAT(_messages.GetMessages(), testing::Each(StartsWith("4 FileSettingsPersister: What was changed in '" +
                                                                  _log + "' does not count")));
}

TEST_F(UserFileTest, AnExchangedUserFileDoesNotMeetTheLogOfAnother)
{
    for (const SaveBy saveBy : SaveByBoth)
    {
        Write(A3, LogOver(A1, {A2}));
        SavedStore saved(_path, saveBy, _fileSystem);
        EXPECT_EQ(saved.GetLayer(), A3);
        EXPECT_EQ(ContentOf(_log + ".foreign"), LogOver(A1, {A2}));
    }
    EXPECT_THAT(_messages.GetMessages(), testing::Each(HasSubstr("another content than the user file has")));
}

TEST_F(UserFileTest, ADamagedUserFileIsMadeUpForByTheGenerationBeforeAndBothLogs)
{
    for (const std::string& damaged : {std::string(4096, '\0'), std::string(1, '\0')})
    {
        for (const SaveBy saveBy : SaveByBoth)
        {
            Write(damaged, LogOver(A2, {A3}), A1, LogOver(A1, {A3, A2}));
            EXPECT_EQ(LayerAfterStart(saveBy), A3);
            EXPECT_EQ(LayerAfterStart(saveBy), A3) << "and so it is the next time";
        }
    }
    EXPECT_THAT(_messages.GetMessages(), testing::SizeIs(4));
    EXPECT_THAT(_messages.GetMessages(), testing::Each(HasSubstr("are taken from '" + _path + "~'")));
}

TEST_F(UserFileTest, ADamagedUserFileIsMadeUpForWhereTheLogsWereNotTurnedOver)
{
    Write(std::string(10, '\0'), LogOver(A1, {A3, A2}), A1, LogOver(A3, {A1}));
    SavedStore saved(_path, SaveBy::Appending, _fileSystem);
    EXPECT_EQ(saved.GetLayer(), A2);
    EXPECT_EQ(ContentOf(_path), A2);
    EXPECT_EQ(ContentOf(_log), FirstLineOver(A2));
    EXPECT_EQ(ContentOf(_log + '~'), LogOver(A1, {A3, A2}));
}

TEST_F(UserFileTest, ALogThatFollowsNoGenerationIsSetAside)
{
    Write(std::string(10, '\0'), LogOver(A3, {A1}), A1, LogOver(A1, {A2}));
    EXPECT_EQ(LayerAfterStart(), A2);
    EXPECT_EQ(ContentOf(_log + ".foreign"), LogOver(A3, {A1}));
}

TEST_F(UserFileTest, AFoldThatWasCutAfterAnyStepIsTheNewContent)
{
    const std::string spent = LogOver(A1, {A3, A2});
    for (const SaveBy saveBy : SaveByBoth)
    {
        const std::string older[] = {"", LogOver(A3, {A1})};
        for (const std::string& before : older)
        {
            Write(A1, spent, A1, before);  // the generation before is there twice
            EXPECT_EQ(LayerAfterStart(saveBy), A2);
            Write(A2, spent, A1, before);  // 1.
            EXPECT_EQ(LayerAfterStart(saveBy), A2);
            EXPECT_EQ(ContentOf(_log + '~'), spent);
        }
        Write(A2, "", A1, spent);  // 2.
        EXPECT_EQ(LayerAfterStart(saveBy), A2);
        for (std::size_t size = 1; size <= FirstLineOver(A2).size(); ++size)  // 3.
        {
            Write(A2, FirstLineOver(A2).substr(0, size), A1, spent);
            EXPECT_EQ(LayerAfterStart(saveBy), A2);
        }
    }
    EXPECT_THAT(_messages.GetMessages(), IsEmpty());
}

TEST_F(UserFileTest, AContentThatComesBackMeetsNoLogOfItsFirstTime)
{
    for (const SaveBy saveBy : SaveByBoth)
    {
        Write(A2, LogOver(A2, {A1}), A1, LogOver(A1, {A2}));  // back to A1, and not folded yet
        EXPECT_EQ(LayerAfterStart(saveBy), A1);
        Write(A1, LogOver(A2, {A1}), A2, LogOver(A1, {A2}));  // folded up to step 1
        EXPECT_EQ(LayerAfterStart(saveBy), A1);
        Write(A1, "", A2, LogOver(A2, {A1}));  // folded
        SavedStore saved(_path, saveBy, _fileSystem);
        saved.Merge(A2);
        saved.Finish();
        EXPECT_EQ(LayerAfterStart(saveBy), A2);
    }
    EXPECT_THAT(_messages.GetMessages(), IsEmpty());
}

TEST_F(UserFileTest, ALogCountsForItsContentWhateverItIsNamed)
{
    Write(A1, "", "", LogOver(A1, {A2}));
    EXPECT_EQ(LayerAfterStart(), A2);
    Write(A1, LogOver(A2, {A3}), "", LogOver(A1, {A2}));
    EXPECT_EQ(LayerAfterStart(), A3);
    EXPECT_EQ(ContentOf(_path), A3);
    EXPECT_THAT(_messages.GetMessages(), IsEmpty());
}

TEST_F(UserFileTest, ALogThatIsCutAnywhereIsFoldedSilentlyBeforeAnythingIsAppended)
{
    const std::string whole = LogOver(A1, {A2});
    const std::string log = LogOver(A1, {A2, A3});
    for (std::size_t size = whole.size() + 1; size < log.size(); ++size)
    {
        SCOPED_TRACE(size);
        Write(A1, log.substr(0, size));
        SavedStore saved(_path, SaveBy::Appending, _fileSystem);
        EXPECT_EQ(saved.GetLayer(), A2);
        EXPECT_EQ(ContentOf(_path), A2);
        EXPECT_EQ(ContentOf(_log), FirstLineOver(A2));
        saved.Merge(A3);
        EXPECT_EQ(LayerAfterStart(), A3);
    }
    EXPECT_THAT(_messages.GetMessages(), IsEmpty());
}

TEST_F(UserFileTest, ADamagedLogIsWarnedOfFoldedAndKeptAside)
{
    for (const SaveBy saveBy : SaveByBoth)
    {
        std::string log = LogOver(A1, {A2, A3, A1});
        log[log.size() - 2 * ChangeLog::RecordOf({{}, Ini(A3)}).size() + 3] = '!';
        Write(A1, log, A3, LogOver(A3, {A1}));
        std::filesystem::remove(_log + ".damaged");
        EXPECT_EQ(LayerAfterStart(saveBy), A2);
        EXPECT_EQ(ContentOf(_path), A2);
        EXPECT_EQ(ContentOf(_log + ".damaged"), log);
        EXPECT_EQ(ContentOf(_log + '~'), std::nullopt);
        EXPECT_EQ(LayerAfterStart(saveBy), A2);
    }
    EXPECT_EQ(_messages.GetMessages(),
              std::vector<std::string>(2, "4 FileSettingsPersister: '" + _log +
                                              "' is damaged from line 5 on: what was changed behind that is lost. It "
                                              "is kept as '" +
                                              _log + ".damaged'"));
}

TEST_F(UserFileTest, ALogWhoseFirstLineIsDamagedOrThatCannotBeReadIsKeptAside)
{
    Write(A1, std::string(100, '\0'));
    EXPECT_EQ(LayerAfterStart(), A1);
    EXPECT_EQ(ContentOf(_log + ".damaged"), std::string(100, '\0'));

    Write(A1, "");
    std::filesystem::remove(_log + ".damaged");
    std::filesystem::create_directory(_log);  // opens, and cannot be read
    EXPECT_EQ(LayerAfterStart(), A1);
    EXPECT_THAT(_messages.GetMessages(),
                ElementsAre(HasSubstr("its first line is damaged"), HasSubstr("Failed to read")));
}

TEST_F(UserFileTest, AfterAWriteOrSyncThatFailedNothingIsAppendedAndTheNextSaveFolds)
{
    for (const char* call : {"Write", "SyncData"})
    {
        SCOPED_TRACE(call);
        Write(A1, "");
        SavedStore saved(_path, SaveBy::Appending, _fileSystem);
        _fileSystem.FailAlwaysAt(call, ENOSPC);
        EXPECT_THAT(MessageOf([&] { saved.Merge(A2); }), HasSubstr('\'' + _log + "': No space left on device"));
        _fileSystem.FailAlwaysAt("", 0);
        EXPECT_TRUE(saved.files.GetRecord().GetFigures().isUnsaved);
        saved.Merge("[B]\nk=1\n");
        EXPECT_FALSE(saved.files.GetRecord().GetFigures().isUnsaved);
        EXPECT_EQ(ContentOf(_path), A2 + "[B]\nk=1\n");
        EXPECT_EQ(ContentOf(_log), FirstLineOver(*ContentOf(_path)));
        saved.Merge(A3);
        EXPECT_EQ(LayerAfterStart(), A3 + "[B]\nk=1\n");
    }
}

TEST_F(UserFileTest, WhoAsksForASaveGetsWhatAFailureHasLeftAndNothingElse)
{
    Write(A1, "");
    SavedStore saved(_path, SaveBy::Appending, _fileSystem);
    const auto save = [&] { saved.files.SaveWhatIsUnsaved([&] { return saved.GetLayer(); }); };
    saved.Merge(A2);
    NewCalls();
    save();
    EXPECT_THAT(NewCalls(), IsEmpty());
    _fileSystem.FailAlwaysAt("SyncData", EIO);
    EXPECT_NE(MessageOf([&] { saved.Merge(A3); }), "");
    save();
    EXPECT_EQ(ContentOf(_path), A3);
}

TEST_F(UserFileTest, AChangeIsSavedThoughTheFoldThatItMeetsFails)
{
    Write(A1, "");
    SavedStore saved(_path, SaveBy::Appending, _fileSystem);
    _fileSystem.FailAlwaysAt("Create", ENOSPC);
    NewCalls();
    saved.Merge(Long);
    EXPECT_EQ(NewCalls().back(), "SyncData");
    EXPECT_EQ(LayerAfterStart(), A1 + Long);
    EXPECT_THAT(_messages.GetMessages(), testing::Contains(HasSubstr("is not folded yet: Failed to create")));
    EXPECT_NE(MessageOf([&] { saved.Merge(A2); }), "") << "nothing is appended before it is folded";
    _fileSystem.FailAlwaysAt("", 0);
    saved.Merge(A3);
    EXPECT_EQ(ContentOf(_path), A3 + Long);
}

TEST_F(UserFileTest, TheLogHasTheRightsOfTheUserFileAndLiesBesideIt)
{
    const std::string real = _folder.PathOf("real.ini");
    WriteFile(real, A1);
    std::filesystem::permissions(real, std::filesystem::perms(0604));
    std::filesystem::create_symlink("real.ini", _path);
    SavedStore saved(_path, SaveBy::Appending, _fileSystem);
    saved.Merge(A2);
    EXPECT_EQ(ContentOf(real + ".log"), LogOver(A1, {A2}));
    EXPECT_EQ(std::filesystem::status(real + ".log").permissions(), std::filesystem::perms(0604));

    saved.Merge(Long);
    EXPECT_EQ(std::filesystem::status(real + ".log").permissions(), std::filesystem::perms(0604));
    EXPECT_THAT(NamesIn(_folder.GetPath()),
                UnorderedElementsAre("user.ini", "real.ini", "real.ini~", "real.ini.log", "real.ini.log~"));
}

TEST_F(UserFileTest, ALogBesideAFileOfSomebodyElseIsForItsOwnerAlone)
{
    Write(A1, "");
    std::filesystem::permissions(_path, std::filesystem::perms(0644));
    _fileSystem.LetFilesBelongTo(12345, 12345);
    AppendedFile log(_fileSystem);
    log.Create(_log + '~', _path);
    EXPECT_EQ(std::filesystem::status(_log + '~').permissions(), std::filesystem::perms(0600));
}

TEST_F(UserFileTest, RestrictedGroupsOfAUserFileThatSomebodyWroteDoNotSurviveAFold)
{
    Write("[DeviceSecure]\nk=1\n[A]\nk=1\n", LogOver("[DeviceSecure]\nk=1\n[A]\nk=1\n", {A2}));
    EXPECT_EQ(LayerAfterStart(SaveBy::Replacing), A2);
    EXPECT_EQ(ContentOf(_path), A2);
}

TEST_F(UserFileTest, AnEmptyLayerThatIsFoldedIsNotMistakenForAnEmptiedFile)
{
    Write(A1, "");
    SavedStore saved(_path, SaveBy::Appending, _fileSystem);
    settings::common::GroupNameMatcher matcher;
    matcher.AddNameOrPattern("*");
    saved.store.RestoreToDefaults(matcher);
    saved.Finish();
    EXPECT_EQ(LayerAfterStart(), "");
    EXPECT_THAT(_messages.GetMessages(), IsEmpty());
}

TEST_F(UserFileTest, NothingStaysOpen)
{
    {
        SavedStore saved(_path, SaveBy::Appending, _fileSystem);
        saved.Merge(A1);
        saved.Merge(Long);
        EXPECT_EQ(_fileSystem.GetOpenFiles(), 1);
    }
    EXPECT_EQ(_fileSystem.GetOpenFiles(), 0);
}

}  // namespace
}  // namespace korlo::daemon
