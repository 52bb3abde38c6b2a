#include "FileSettingsPersister.h"

#include <cerrno>
#include <filesystem>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/Documents.h"
#include "support/FaultyFileSystem.h"
#include "support/Files.h"
#include "support/LogCapture.h"
#include "support/TemporaryFolder.h"

namespace korlo::daemon
{
namespace
{

using settings::server::SettingsCombiner;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class FileSettingsPersisterTest : public testing::Test
{
protected:
    core::IniFile LoadUser()
    {
        core::IniFile user;
        SettingsCombiner combiner(user);
        FileSettingsPersister(SettingsFiles({}), _path, _fileSystem).LoadUserSettings(combiner);
        return user;
    }

    TemporaryFolder _folder;
    const std::string _path = _folder.PathOf("user.ini");
    FaultyFileSystem _fileSystem;
    LogCapture _log;
};

TEST_F(FileSettingsPersisterTest, ReadsFoldersInByteOrderAndFilesInTheOrderGiven)
{
    const std::string folder = _folder.PathOf("defaults.d");
    std::filesystem::create_directory(folder);
    WriteFile(folder + "/b.ini", "[G]\nk=b\nfrom=b\n");
    WriteFile(folder + "/Z.ini", "[G]\nk=Z\n");
    WriteFile(folder + "/a.txt", "[G]\nk=txt\n");
    WriteFile(folder + "/.hidden.ini", "[G]\nk=hidden\n");
    std::filesystem::create_directory(folder + "/x.ini");
    WriteFile(_folder.PathOf("last.ini"), "[G]\nfrom=last\n");

    core::IniFile defaults;
    SettingsCombiner combiner(defaults);
    FileSettingsPersister(SettingsFiles({folder, _folder.PathOf("last.ini")}), "").LoadDefaultSettings(combiner);
    EXPECT_EQ(defaults, Ini("[G]\nk=b\nfrom=last\n"));
    EXPECT_THAT(SettingsFiles({folder}).Find(), ElementsAre(folder + "/Z.ini", folder + "/b.ini"));
}

TEST_F(FileSettingsPersisterTest, AMissingDefaultFileIsAnErrorThatNamesIt)
{
    core::IniFile defaults;
    SettingsCombiner combiner(defaults);
    FileSettingsPersister persister(SettingsFiles({_folder.PathOf("none.ini")}), "");
    EXPECT_THAT(MessageOf([&] { persister.LoadDefaultSettings(combiner); }), HasSubstr("none.ini"));
}

TEST_F(FileSettingsPersisterTest, LoadsWhatWasSaved)
{
    FileSettingsPersister persister(SettingsFiles({}), _path);
    persister.SaveUserSettings(Ini("[A]\nk=1\n"));
    EXPECT_EQ(ContentOf(_path), "[A]\nk=1\n");
    EXPECT_EQ(LoadUser(), Ini("[A]\nk=1\n"));
}

TEST_F(FileSettingsPersisterTest, ASaveOfTheSameTextWritesNothing)
{
    WriteFile(_path, "[A]\nk=1\n");
    core::IniFile user;
    SettingsCombiner combiner(user);
    FileSettingsPersister persister(SettingsFiles({}), _path, _fileSystem);
    persister.LoadUserSettings(combiner);

    const std::size_t calls = _fileSystem.GetCalls().size();
    persister.SaveUserSettings(Ini("[A]\nk=1\n"));
    EXPECT_EQ(_fileSystem.GetCalls().size(), calls);
    persister.SaveUserSettings(Ini("[A]\nk=2\n"));
    EXPECT_GT(_fileSystem.GetCalls().size(), calls);
}

TEST_F(FileSettingsPersisterTest, WhatWasLoadedCountsAsStoredOnlyOnceItIsOnTheDisk)
{
    WriteFile(_path, "[A]\nk=1\n");
    for (const bool canSync : {true, false})
    {
        SCOPED_TRACE(canSync);
        FaultyFileSystem fileSystem;
        fileSystem.FailAlwaysAt(canSync ? "" : "SyncFolder", EIO);
        core::IniFile user;
        SettingsCombiner combiner(user);
        FileSettingsPersister persister(SettingsFiles({}), _path, fileSystem);
        persister.LoadUserSettings(combiner);
        EXPECT_EQ(user, Ini("[A]\nk=1\n"));
        EXPECT_EQ(fileSystem.GetCalls().back(), "SyncFolder");

        fileSystem.FailAlwaysAt("", 0);
        const std::size_t calls = fileSystem.GetCalls().size();
        persister.SaveUserSettings(Ini("[A]\nk=1\n"));
        EXPECT_EQ(fileSystem.GetCalls().size() == calls, canSync);
    }
}

TEST_F(FileSettingsPersisterTest, AfterAFailureTheSameTextIsWrittenAgain)
{
    FileSettingsPersister persister(SettingsFiles({}), _path, _fileSystem);
    persister.SaveUserSettings(Ini("[A]\nk=1\n"));
    _fileSystem.FailAlwaysAt("SyncFolder", EIO);
    EXPECT_THAT(MessageOf([&] { persister.SaveUserSettings(Ini("[A]\nk=2\n")); }), HasSubstr(_path));
    _fileSystem.FailAlwaysAt("", 0);
    const std::size_t calls = _fileSystem.GetCalls().size();
    persister.SaveUserSettings(Ini("[A]\nk=2\n"));
    EXPECT_GT(_fileSystem.GetCalls().size(), calls);
}

TEST_F(FileSettingsPersisterTest, AMissingFileIsAnEmptyLayerWhateverLiesBesideIt)
{
    WriteFile(_path + '~', "[A]\nk=old\n");
    EXPECT_EQ(LoadUser(), core::IniFile());
    EXPECT_THAT(_log.GetMessages(), IsEmpty());
}

TEST_F(FileSettingsPersisterTest, TakesTheGenerationBeforeForAZeroedOrEmptyFileAndKeepsIt)
{
    for (const std::string& damaged : {std::string(4096, '\0'), std::string()})
    {
        WriteFile(_path, damaged);
        WriteFile(_path + '~', "[A]\nk=old\n");
        EXPECT_EQ(LoadUser(), Ini("[A]\nk=old\n"));
        EXPECT_EQ(ContentOf(_path), "[A]\nk=old\n");
        EXPECT_EQ(ContentOf(_path + '~'), "[A]\nk=old\n");
    }
    EXPECT_THAT(_log.GetMessages(), ElementsAre(HasSubstr("4 FileSettingsPersister"), HasSubstr("it is empty")));
}

TEST_F(FileSettingsPersisterTest, TakesTheGenerationBeforeForAFileThatCannotBeRead)
{
    WriteFile(_path, "[A]\nk=new\n");
    WriteFile(_path + '~', "[A]\nk=old\n");
    _fileSystem.FailAt(2, FaultyFileSystem::FailOnce, EIO);  // after the look at the file and its opening
    EXPECT_EQ(LoadUser(), Ini("[A]\nk=old\n"));
    EXPECT_THAT(_log.GetMessages(), ElementsAre(HasSubstr("Failed to read")));
}

TEST_F(FileSettingsPersisterTest, AFileThatCannotBeReadIsAnErrorWhereThereIsNothingBeforeIt)
{
    WriteFile(_path, "[A]\nk=new\n");
    _fileSystem.FailAlwaysAt("Read", EIO);
    EXPECT_THAT(MessageOf([&] { LoadUser(); }), HasSubstr(_path));
    EXPECT_EQ(ContentOf(_path), "[A]\nk=new\n");
}

TEST_F(FileSettingsPersisterTest, AZeroedFileWithNothingBeforeItIsAnEmptyLayerAndAnError)
{
    WriteFile(_path, std::string(10, '\0'));
    EXPECT_EQ(LoadUser(), core::IniFile());
    EXPECT_THAT(_log.GetMessages(), ElementsAre(HasSubstr("3 FileSettingsPersister: The user settings of")));
}

TEST_F(FileSettingsPersisterTest, AnEmptyLayerIsNotMistakenForAnEmptiedFile)
{
    FileSettingsPersister persister(SettingsFiles({}), _path);
    persister.SaveUserSettings(Ini("[A]\nk=1\n"));
    persister.SaveUserSettings(core::IniFile());
    EXPECT_EQ(LoadUser(), core::IniFile());
    EXPECT_THAT(_log.GetMessages(), IsEmpty());
}

TEST_F(FileSettingsPersisterTest, PreparingRemovesWhatCutSavesHaveLeftAndNothingElse)
{
    const std::string kept[] = {"user.ini~", "user.ini.bak", "user.ini.12-x~", "user.ini.-1~", "other.ini.1-2~"};
    for (const std::string& name : kept)
    {
        WriteFile(_folder.PathOf(name), "x");
    }
    WriteFile(_folder.PathOf("user.ini.123-45~"), "x");
    FileSettingsPersister(SettingsFiles({}), _path).Prepare();
    EXPECT_THAT(NamesIn(_folder.GetPath()), testing::UnorderedElementsAreArray(kept));
}

TEST_F(FileSettingsPersisterTest, PreparingFailsWhereNothingCanBeSaved)
{
    FileSettingsPersister inNoFolder(SettingsFiles({}), _folder.PathOf("none/user.ini"));
    EXPECT_THAT(MessageOf([&] { inNoFolder.Prepare(); }), HasSubstr("none/user.ini"));
    FileSettingsPersister aFolder(SettingsFiles({}), _folder.GetPath());
    EXPECT_THAT(MessageOf([&] { aFolder.Prepare(); }), HasSubstr("Not a regular file"));
    _fileSystem.FailAlwaysAt("Create", EROFS);
    FileSettingsPersister readOnly(SettingsFiles({}), _path, _fileSystem);
    EXPECT_THAT(MessageOf([&] { readOnly.Prepare(); }), HasSubstr("Read-only file system"));
}

TEST_F(FileSettingsPersisterTest, WithoutAPathNothingIsLoadedOrSaved)
{
    FileSettingsPersister persister(SettingsFiles({}), "", _fileSystem);
    persister.Prepare();
    persister.SaveUserSettings(Ini("[A]\nk=1\n"));
    EXPECT_THAT(_fileSystem.GetCalls(), IsEmpty());
}

}  // namespace
}  // namespace korlo::daemon
