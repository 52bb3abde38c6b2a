#include "DelayedPersister.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <future>
#include <memory>
#include <new>
#include <sstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "saving/ChangeLog.h"
#include "settings/server/SettingsManager.h"
#include "support/Documents.h"
#include "support/Files.h"
#include "support/LogWatch.h"
#include "support/SlowFileSystem.h"
#include "support/TemporaryFolder.h"

namespace korlo::daemon
{
namespace
{

using namespace std::chrono_literals;
using settings::server::SettingsManager;
using testing::HasSubstr;

constexpr auto Limit = 30s;

class DelayedPersisterTest : public testing::Test
{
protected:
    void Start(unsigned int delayMs)
    {
        _pPersister = std::make_unique<DelayedPersister>(_target, delayMs);
        _pStore = std::make_unique<SettingsManager>(_pPersister.get(), nullptr, nullptr, false);
        _pPersister->Start([this] {
            std::ostringstream text;
            _pStore->DumpUserSettings(text);
            return text.str();
        });
    }

    ~DelayedPersisterTest() override { _fileSystem.LetGo(); }

    TemporaryFolder _folder;
    const std::string _path = _folder.PathOf("user.ini");
    SlowFileSystem _fileSystem;
    FileSettingsPersister _target{SettingsFiles({}), _path, _fileSystem};
    std::unique_ptr<SettingsManager> _pStore;
    std::unique_ptr<DelayedPersister> _pPersister;
};

TEST_F(DelayedPersisterTest, SavesByItselfWhenTheDelayIsOver)
{
    Start(1);
    _pStore->MergeSettings(Ini("[A]\nk=1\n"), 0);
    ASSERT_TRUE(_fileSystem.AwaitSyncs(1));
    _pPersister->Finish();
    EXPECT_EQ(ContentOf(_path), "[A]\nk=1\n");
}

TEST_F(DelayedPersisterTest, GathersChangesAndSavesThemAtTheEnd)
{
    Start(3'600'000);
    for (int i = 0; i < 100; ++i)
    {
        _pStore->MergeSettings(Ini("[A]\nk=" + std::to_string(i) + '\n'), 0);
    }
    EXPECT_EQ(ContentOf(_path), std::nullopt);
    _pPersister->Finish();
    EXPECT_EQ(ContentOf(_path), "[A]\nk=99\n");
    EXPECT_TRUE(_fileSystem.AwaitSyncs(1));
    EXPECT_FALSE(std::filesystem::exists(_path + '~'));  // one save, so no generation before
}

TEST_F(DelayedPersisterTest, NobodyWaitsForTheDisk)
{
    _fileSystem.Hold();
    Start(1);
    _pStore->MergeSettings(Ini("[A]\nk=1\n"), 0);
    ASSERT_TRUE(_fileSystem.AwaitSyncs(1));

    auto working = std::async(std::launch::async, [this] {
        core::IniFile read;
        _pStore->GetGroups(read, "A");
        _pStore->MergeSettings(Ini("[A]\nk=2\n"), 0);
        return read;
    });
    ASSERT_EQ(working.wait_for(Limit), std::future_status::ready);
    EXPECT_EQ(working.get(), Ini("[A]\nk=1\n"));

    _fileSystem.LetGo();
    _pPersister->Finish();
    EXPECT_EQ(ContentOf(_path), "[A]\nk=2\n");
}

TEST_F(DelayedPersisterTest, ASaveThatFailsIsLoggedAndTriedAgain)
{
    LogWatch log;
    _fileSystem.FailWith(ENOSPC);
    Start(1);
    _pStore->MergeSettings(Ini("[A]\nk=1\n"), 0);
    ASSERT_TRUE(log.WaitFor("3 DelayedPersister: User settings are not saved yet: Failed to sync the new content of '" +
                            _path + "': No space left on device"));
    _fileSystem.FailWith(0);
    ASSERT_TRUE(_fileSystem.AwaitSyncs(2));
    _pPersister->Finish();
    EXPECT_EQ(ContentOf(_path), "[A]\nk=1\n");
}

TEST_F(DelayedPersisterTest, ALayerThatMemoryDoesNotSufficeForIsLoggedAndTriedAgain)
{
    LogWatch log;
    std::atomic<int> attempts = 0;
    DelayedPersister persister(_target, 1);
    SettingsManager store(&persister, nullptr, nullptr, false);
    persister.Start([&] { return attempts++ == 0 ? throw std::bad_alloc() : UserLayerOf(store); });
    store.MergeSettings(Ini("[A]\nk=1\n"), 0);
    ASSERT_TRUE(log.WaitFor("3 DelayedPersister: User settings are not saved yet: std::bad_alloc"));
    ASSERT_TRUE(_fileSystem.AwaitSyncs(1));
    persister.Finish();
    EXPECT_EQ(ContentOf(_path), "[A]\nk=1\n");
}

TEST_F(DelayedPersisterTest, TheLastSaveTellsOfItsFailure)
{
    Start(3'600'000);
    _pStore->MergeSettings(Ini("[A]\nk=1\n"), 0);
    _fileSystem.FailWith(ENOSPC);
    EXPECT_THAT(MessageOf([this] { _pPersister->Finish(); }), HasSubstr("No space left on device"));
}

TEST_F(DelayedPersisterTest, WithoutAChangeNothingIsSaved)
{
    Start(1);
    _pStore->MergeSettings(Ini("[A]\nk=1\n"), SettingsManager::DoNotPersist);
    _pPersister->Finish();
    EXPECT_EQ(ContentOf(_path), std::nullopt);
}

TEST_F(DelayedPersisterTest, WhoAsksForASaveGetsItAtOnceAndOnTheDisk)
{
    Start(3'600'000);
    _pPersister->SaveNow();
    EXPECT_EQ(ContentOf(_path), std::nullopt) << "nothing has changed";
    _pStore->MergeSettings(Ini("[A]\nk=1\n"), 0);
    EXPECT_TRUE(_pPersister->IsWaiting());
    _pPersister->SaveNow();
    EXPECT_EQ(ContentOf(_path), "[A]\nk=1\n");
    EXPECT_FALSE(_pPersister->IsWaiting());
    _pStore->MergeSettings(Ini("[A]\nk=2\n"), 0);
    _pPersister->SaveNow();
    EXPECT_EQ(ContentOf(_path), "[A]\nk=2\n");
}

TEST_F(DelayedPersisterTest, WhoAsksWaitsForTheSaveThatIsUnderWayAndForTheNextIfItMust)
{
    _fileSystem.Hold();
    Start(1);
    _pStore->MergeSettings(Ini("[A]\nk=1\n"), 0);
    ASSERT_TRUE(_fileSystem.AwaitSyncs(1));
    auto first = std::async(std::launch::async, [this] { _pPersister->SaveNow(); });
    _pStore->MergeSettings(Ini("[A]\nk=2\n"), 0);
    auto second = std::async(std::launch::async, [this] {
        _pPersister->SaveNow();
        return ContentOf(_path);
    });
    EXPECT_EQ(second.wait_for(20ms), std::future_status::timeout);
    _fileSystem.LetGo();
    first.get();
    EXPECT_EQ(second.get(), "[A]\nk=2\n");
}

TEST_F(DelayedPersisterTest, WhoAsksHearsWhyASaveFailsAndMayAskAgain)
{
    LogWatch log;
    _fileSystem.FailWith(ENOSPC);
    Start(3'600'000);
    _pStore->MergeSettings(Ini("[A]\nk=1\n"), 0);
    for (int attempt = 0; attempt < 2; ++attempt)
    {
        EXPECT_EQ(MessageOf([this] { _pPersister->SaveNow(); }),
                  "Failed to sync the new content of '" + _path + "': No space left on device");
    }
    EXPECT_TRUE(_target.GetRecord().GetFigures().isUnsaved);
    EXPECT_EQ(_target.GetRecord().GetFigures().failed, 2u);
    _fileSystem.FailWith(0);
    _pPersister->SaveNow();
    EXPECT_EQ(ContentOf(_path), "[A]\nk=1\n");
    EXPECT_FALSE(_target.GetRecord().GetFigures().isUnsaved);
}

TEST_F(DelayedPersisterTest, WithoutAFileWhoAsksHearsThatNothingIsSaved)
{
    FileSettingsPersister nowhere(SettingsFiles({}), "");
    DelayedPersister persister(nowhere, 1);
    EXPECT_THAT(MessageOf([&] { persister.SaveNow(); }), testing::StartsWith("there is no file to save to"));
}

/// A store that appends what a delay has gathered.
class DelayedAppendingTest : public testing::Test
{
protected:
    DelayedAppendingTest()
    {
        WriteFile(_path, "[A]\nk=0\n");
        _pStore = std::make_unique<SettingsManager>(&_persister, nullptr, nullptr, false);
        _pStore->SetChangePersister(&_persister);
        _persister.Start([this] { return UserLayerOf(*_pStore); });
    }

    void Merge(const std::string& changes) { _pStore->MergeSettings(Ini(changes), 0); }

    /// What a start makes of the files.
    std::string LayerAfterStart() const
    {
        FileSettingsPersister files(SettingsFiles({}), _path, osa::RealFileSystem(), nullptr, SaveBy::Appending);
        return UserLayerOf(SettingsManager(&files, nullptr, nullptr, false));
    }

    std::size_t CountRecords() const { return ChangeLog(*ContentOf(_path + ".log")).GetRecords().size(); }

    TemporaryFolder _folder;
    const std::string _path = _folder.PathOf("user.ini");
    FaultyFileSystem _fileSystem;
    FileSettingsPersister _target{SettingsFiles({}), _path, _fileSystem, nullptr, SaveBy::Appending};
    DelayedPersister _persister{_target, 3'600'000};
    std::unique_ptr<SettingsManager> _pStore;
};

TEST_F(DelayedAppendingTest, AppendsWhatWasGatheredAsOneRecord)
{
    Merge("[A]\nk=1\n[B]\nk=1\n");
    _pStore->OverwriteSettings("B", {});
    Merge("[A]\nk=2\n");
    _persister.SaveNow();
    EXPECT_EQ(CountRecords(), 1u);
    EXPECT_EQ(LayerAfterStart(), UserLayerOf(*_pStore));
    Merge("[A]\nk=3\n");
    _persister.SaveNow();
    EXPECT_EQ(CountRecords(), 2u);
    EXPECT_EQ(ContentOf(_path), "[A]\nk=0\n");
    _persister.Finish();
    EXPECT_EQ(ContentOf(_path), UserLayerOf(*_pStore));
    EXPECT_EQ(ContentOf(_path + ".log"), std::nullopt);
}

TEST_F(DelayedAppendingTest, WhatIsFoldedIsWhatTheLogHolds)
{
    for (const char* changes : {"[A]\nk=1\n", "[A]\nk=2\n"})
    {
        Merge(changes + ("[Long]\nk=" + std::string(40'000, changes[6]) + '\n'));
        _persister.SaveNow();
    }
    EXPECT_EQ(ContentOf(_path), UserLayerOf(*_pStore));
    EXPECT_EQ(CountRecords(), 0u);
    EXPECT_EQ(ChangeLog(*ContentOf(_path + ".log~")).GetRecords().size(), 2u);
}

TEST_F(DelayedAppendingTest, AfterAFailureTheLayerOfTheStoreIsFolded)
{
    LogWatch log;
    Merge("[A]\nk=1\n");
    _fileSystem.FailAlwaysAt("SyncData", ENOSPC);
    EXPECT_THAT(MessageOf([this] { _persister.SaveNow(); }), HasSubstr("No space left on device"));
    Merge("[A]\nj=1\n");
    _persister.SaveNow();
    EXPECT_EQ(ContentOf(_path), "[A]\nj=1\nk=1\n");
}

}  // namespace
}  // namespace korlo::daemon
