#include "DelayedPersister.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <future>
#include <memory>
#include <mutex>
#include <new>
#include <sstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "settings/server/SettingsManager.h"
#include "support/Documents.h"
#include "support/FaultyFileSystem.h"
#include "support/Files.h"
#include "support/LogWatch.h"
#include "support/TemporaryFolder.h"

namespace korlo::daemon
{
namespace
{

using namespace std::chrono_literals;
using settings::server::SettingsManager;
using testing::HasSubstr;

constexpr auto Limit = 30s;

/// A disk whose sync tells of itself and waits until it is let go, or fails.
///
/// Thread safety: all methods, from any thread.
class SlowFileSystem : public FaultyFileSystem
{
public:
    int Sync(int file) override
    {
        std::unique_lock lock(_mutex);
        ++_syncs;
        _changed.notify_all();
        _changed.wait(lock, [this] { return !_isHeld; });
        return _error != 0 ? _error : FaultyFileSystem::Sync(file);
    }

    void Hold() { Set(_isHeld, true); }
    void LetGo() { Set(_isHeld, false); }
    void FailWith(int error) { Set(_error, error); }

    bool AwaitSyncs(int count)
    {
        std::unique_lock lock(_mutex);
        return _changed.wait_for(lock, Limit, [&] { return _syncs >= count; });
    }

private:
    template <typename T>
    void Set(T& member, T value)
    {
        const std::lock_guard lock(_mutex);
        member = value;
        _changed.notify_all();
    }

    std::mutex _mutex;
    std::condition_variable _changed;
    int _syncs = 0;
    bool _isHeld = false;
    int _error = 0;
};

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

}  // namespace
}  // namespace korlo::daemon
