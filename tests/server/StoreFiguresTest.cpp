// How much the store says it holds. That the figures are right is compared over random operations by
// SettingsManagerModelTest.

#include <chrono>
#include <future>

#include <gtest/gtest.h>

#include "korlo/osa/Exception.h"
#include "settings/server/SettingsManager.h"
#include "support/Documents.h"
#include "support/RecordingPersister.h"

namespace korlo::settings::server
{
namespace
{

TEST(StoreFiguresTest, TheyCountGroupsKeysBytesAndChanges)
{
    RecordingPersister persister;
    persister.defaults = {Ini("[Audio]\nvolume=40\n[Empty]\n")};
    SettingsManager store(&persister, nullptr, nullptr, false);
    EXPECT_EQ(store.GetFigures().groups, 2u);
    EXPECT_EQ(store.GetFigures().keys, 1u);
    EXPECT_EQ(store.GetFigures().bytes, 18u);
    EXPECT_EQ(store.GetFigures().changes, 0u);
    store.MergeSettings(Ini("[Audio]\nvolume=7\nbass=1\n"), 0);
    store.MergeSettings(Ini("[Net]\nip=1\n"), SettingsManager::DoNotPersist);
    store.OverwriteSettings("Empty", core::IniFile());
    EXPECT_EQ(store.GetFigures().groups, 2u);
    EXPECT_EQ(store.GetFigures().keys, 3u);
    EXPECT_EQ(store.GetFigures().bytes, 23u);
    EXPECT_EQ(store.GetFigures().changes, 3u);
    EXPECT_FALSE(store.TestAndMerge(Ini("[Audio]\nvolume=1\n"), Ini("[Audio]\nvolume=2\n")));
    EXPECT_EQ(store.GetFigures().changes, 3u) << "a test that found other values changed nothing";
}

TEST(StoreFiguresTest, TheyAreToldWhileAChangeWaitsForTheDisk)
{
    RecordingPersister persister;
    std::promise<void> saving;
    std::promise<void> letGo;
    persister.beforeSave = [&] {
        saving.set_value();
        letGo.get_future().wait();
    };
    SettingsManager store(&persister, nullptr, nullptr, false);
    auto changing = std::async(std::launch::async, [&store] { store.MergeSettings(Ini("[A]\nk=1\n"), 0); });
    saving.get_future().wait();
    EXPECT_EQ(store.GetFigures().keys, 1u);
    letGo.set_value();
    changing.get();
}

TEST(StoreFiguresTest, TheyTellWhatALoadThatFailedHasLeft)
{
    RecordingPersister persister;
    persister.defaults = {Ini("[A]\nk=1\n")};
    persister.beforeLoadUser = [] { throw osa::Exception("the disk is gone"); };
    SettingsManager store(&persister, nullptr, nullptr, true);
    EXPECT_EQ(store.GetFigures().keys, 0u) << "nobody waits for a load that was deferred";
    EXPECT_THROW(store.LoadSettings(), osa::Exception);
    EXPECT_EQ(store.GetFigures().keys, 1u);
}

}  // namespace
}  // namespace korlo::settings::server
