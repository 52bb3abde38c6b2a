// How the store is filled and emptied of what may not be in it: construction, layers, the record of erased groups.
#include "settings/server/SettingsManager.h"

#include <chrono>
#include <csignal>
#include <functional>
#include <future>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <unistd.h>

#include "support/Callbacks.h"
#include "support/Documents.h"
#include "support/RecordingPersister.h"
#include "support/StoreContents.h"

namespace korlo::settings::server
{
namespace
{

using namespace std::chrono_literals;
using core::IniFile;

const std::string Record = "[KorloSettings/Data/DeletedGroups]\n";
const std::string Priorities = "[KorloSettings/LoadPriority]\n";

TEST(SettingsManagerLoadTest, ADefaultConstructedStoreIsEmptyAndUnlocked)
{
    SettingsManager store;
    EXPECT_TRUE(All(store).empty());
    EXPECT_TRUE(UserLayer(store).empty());
    store.MergeSettings(Ini("[A]\nx=1\n"), 0);
    EXPECT_EQ(All(store), Ini("[A]\nx=1\n"));
    EXPECT_EQ(UserLayer(store), Ini("[A]\nx=1\n"));
}

TEST(SettingsManagerLoadTest, WithoutDeferralTheStoreIsLoadedWhenTheConstructorReturns)
{
    RecordingPersister persister;
    persister.defaults = {Ini("[A]\nx=1\ny=1\n[B]\nz=1\n"), Ini("[A]\nx=2\n")};
    persister.user = Ini("[A]\ny=user\n[C]\n");
    const SettingsManager store(&persister, nullptr, nullptr, false);
    EXPECT_EQ(All(store), Ini("[A]\nx=2\ny=user\n[B]\nz=1\n[C]\n"));
    EXPECT_EQ(UserLayer(store), persister.user);
    EXPECT_EQ(persister.saveCount, 0);
}

TEST(SettingsManagerLoadTest, ADeferredStoreKeepsEverybodyWaitingUntilItIsLoadedByWhicheverThread)
{
    RecordingPersister persister;
    persister.defaults = {Ini("[A]\nx=1\n")};
    SettingsManager store(&persister, nullptr, nullptr, true);
    auto reader = std::async(std::launch::async, [&] { return All(store); });
    auto writer = std::async(std::launch::async, [&] { store.MergeSettings(Ini("[B]\n"), 0); });
    EXPECT_EQ(reader.wait_for(20ms), std::future_status::timeout);
    EXPECT_EQ(writer.wait_for(5ms), std::future_status::timeout);
    EXPECT_EQ(persister.saveCount, 0);

    std::async(std::launch::async, [&] { store.LoadSettings(); }).get();
    ASSERT_EQ(reader.wait_for(10s), std::future_status::ready);
    ASSERT_EQ(writer.wait_for(10s), std::future_status::ready);
    EXPECT_TRUE(reader.get().HasValue("A", "x"));
    EXPECT_EQ(All(store), Ini("[A]\nx=1\n[B]\n"));
}

TEST(SettingsManagerLoadTest, ADeferredStoreTakesSubscribersBeforeItIsLoaded)
{
    RecordingPersister persister;
    RecordingCallback callback;
    SettingsManager store(&persister, nullptr, nullptr, true);
    store.Subscribe(&callback, "*");
    store.LoadSettings();
    EXPECT_TRUE(callback.GetChanges().empty());
    store.MergeSettings(Ini("[A]\n"), 0);
    EXPECT_EQ(callback.GetChanges().size(), 1u);
}

/// Ends the process quietly if `use` of a store without storage returns; else a signal ends it, from outside.
void UseLockedStore(bool deferLoad, const std::function<void(SettingsManager&)>& use)
{
    SettingsManager store(nullptr, nullptr, nullptr, deferLoad);
    store.LoadSettings();
    constexpr char waiting[] = "waiting";
    if (::write(STDERR_FILENO, waiting, sizeof waiting - 1) < 0)
    {
        ::_exit(1);
    }
    ::ualarm(200000, 0);
    use(store);
    ::_exit(0);
}

// Meant: a store that was built for storage and has none never becomes usable. In a process of its own, which is ended
// while it waits, since nothing else could end such a wait.
TEST(SettingsManagerLoadDeathTest, WithoutPersisterTheArgumentConstructorLeavesTheStoreLockedForGood)
{
    for (const bool deferLoad : {false, true})
    {
        SCOPED_TRACE(deferLoad ? "deferred" : "not deferred");
        EXPECT_EXIT(UseLockedStore(deferLoad, [](SettingsManager& store) { All(store); }),
                    testing::KilledBySignal(SIGALRM), "waiting");
        EXPECT_EXIT(UseLockedStore(deferLoad, [](SettingsManager& store) { UserLayer(store); }),
                    testing::KilledBySignal(SIGALRM), "waiting");
        EXPECT_EXIT(UseLockedStore(deferLoad, [](SettingsManager& store) { store.MergeSettings(IniFile(), 0); }),
                    testing::KilledBySignal(SIGALRM), "waiting");
    }
}

TEST(SettingsManagerLoadTest, AStoreThatStaysLockedCanBeSubscribedToAndDestroyed)
{
    RecordingCallback callback;
    SettingsManager store(nullptr, nullptr, nullptr, false);
    store.Subscribe(&callback, "A");
    GroupNameCollection groups;
    store.GetAllSubscribedGroups(groups);
    EXPECT_EQ(groups, (GroupNameCollection{"A"}));
    store.Unsubscribe(&callback);
    store.LoadUserSettings();
    store.RestoreToDefaults(common::GroupNameMatcher());
}

TEST(SettingsManagerLoadTest, RestrictedGroupsComeFromTheRestrictedLoaderAlone)
{
    RecordingPersister persister;
    persister.defaults = {Ini("[A]\n[SecureX]\nfrom=defaults\nleft=1\n[TrustedOther]\n")};
    persister.user = Ini("[B]\n[SecureX]\nfrom=user\nalso=1\n");
    RecordingRestrictedLoader loader;
    loader.documents = {Ini("[SecureX]\nfrom=first\n"), Ini("[SecureX]\nfrom=loader\n[TrustedY]\n[Plain]\n")};
    const SettingsManager store(&persister, &loader, nullptr, false);
    EXPECT_EQ(All(store), Ini("[A]\n[B]\n[Plain]\n[SecureX]\nfrom=loader\n[TrustedY]\n"));
    EXPECT_EQ(UserLayer(store), Ini("[B]\n"));
    EXPECT_EQ(loader.loadCount, 1);
}

TEST(SettingsManagerLoadTest, WithoutRestrictedLoaderNoRestrictedGroupSurvives)
{
    RecordingPersister persister;
    persister.defaults = {Ini("[A]\n[SecureX]\nx=1\n")};
    persister.user = Ini("[TrustedY]\n");
    const SettingsManager store(&persister, nullptr, nullptr, false);
    EXPECT_EQ(All(store), Ini("[A]\n"));
    EXPECT_TRUE(UserLayer(store).empty());
}

TEST(SettingsManagerLoadTest, RestrictedSettingsOverrideTheUserLayer)
{
    RecordingPersister persister;
    persister.user = Ini("[A]\nx=user\ny=user\n");
    RecordingRestrictedLoader loader;
    loader.documents = {Ini("[A]\nx=restricted\n")};
    const SettingsManager store(&persister, &loader, nullptr, false);
    EXPECT_EQ(All(store), Ini("[A]\nx=restricted\ny=user\n"));
}

/// Puts a key into every document, and notes whether the claims were still there.
class SeeingFilter : public IIncludeFilter
{
public:
    void FilterIni(IniFile& ini) override
    {
        sawClaims.push_back(ini.HasGroup("KorloSettings/LoadPriority"));
        ini["Seen"][std::to_string(sawClaims.size())] = "1";
    }

    std::vector<bool> sawClaims;
};

TEST(SettingsManagerLoadTest, TheIncludeFilterEditsDefaultsAndRestrictedSettingsBeforeThePriorities)
{
    RecordingPersister persister;
    persister.defaults = {Ini("[A]\n" + Priorities + "A=5\n"), Ini("[A]\nlost=1\n")};
    persister.user = Ini("[User]\n");
    RecordingRestrictedLoader loader;
    loader.documents = {Ini("[SecureX]\n" + Priorities + "B=1\n")};
    SeeingFilter filter;
    const SettingsManager store(&persister, &loader, &filter, false);
    EXPECT_EQ(filter.sawClaims, (std::vector<bool>{true, false, true}));
    EXPECT_EQ(All(store), Ini("[A]\n[SecureX]\n[Seen]\n1=1\n2=1\n3=1\n[User]\n"));
    EXPECT_EQ(UserLayer(store), Ini("[User]\n"));
}

TEST(SettingsManagerLoadTest, ConfigureSettingsCombinerAddsTheFilterAndThePriorities)
{
    SeeingFilter filter;
    RecordingPersister persister;
    const SettingsManager store(&persister, nullptr, &filter, false);
    IniFile target;
    SettingsCombiner combiner(target);
    store.ConfigureSettingsCombiner(combiner);
    combiner.LoadFromIni(Ini("[A]\nx=1\n" + Priorities + "A=5\n"));
    combiner.LoadFromIni(Ini("[A]\nx=2\n"));
    EXPECT_EQ(filter.sawClaims, (std::vector<bool>{true, false}));
    EXPECT_EQ(target, Ini("[A]\nx=1\n[Seen]\n1=1\n2=1\n"));
}

TEST(SettingsManagerLoadTest, AClaimOfTheDefaultsHoldsAgainstTheRestrictedSettings)
{
    RecordingPersister persister;
    persister.defaults = {Ini("[A]\nx=default\n" + Priorities + "A=5\n")};
    RecordingRestrictedLoader loader;
    loader.documents = {Ini("[A]\nx=restricted\n[SecureB]\n")};
    const SettingsManager store(&persister, &loader, nullptr, false);
    EXPECT_EQ(All(store), Ini("[A]\nx=default\n[SecureB]\n"));
}

TEST(SettingsManagerLoadTest, TheUserLayerIsLoadedWithoutPrioritiesAndKeepsSuchAGroup)
{
    RecordingPersister persister;
    persister.defaults = {Ini("[A]\nx=default\n" + Priorities + "A=5\n")};
    persister.user = Ini("[A]\nx=user\n" + Priorities + "A=1\n");
    const SettingsManager store(&persister, nullptr, nullptr, false);
    EXPECT_EQ(All(store), persister.user);
    EXPECT_EQ(UserLayer(store), persister.user);
}

TEST(SettingsManagerLoadTest, DefaultsOfErasedGroupsAreDroppedWhateverTheKeysOfTheRecord)
{
    RecordingPersister persister;
    persister.defaults = {Ini("[A]\nx=1\n[Net/a]\n[Net/b]\n[Kept]\n")};
    persister.user = Ini("[Net/b]\nuser=1\n" + Record + "any=A\nkey=Net/*\n");
    const SettingsManager store(&persister, nullptr, nullptr, false);
    EXPECT_EQ(All(store), Ini("[Kept]\n[Net/b]\nuser=1\n"));
}

TEST(SettingsManagerLoadTest, TheRecordOfErasedGroupsIsForTheUserLayerAlone)
{
    RecordingPersister persister;
    persister.user = Ini(Record + "1=A\n");
    const SettingsManager store(&persister, nullptr, nullptr, false);
    IniFile out;
    store.GetGroups(out, "KorloSettings/Data/DeletedGroups");
    EXPECT_TRUE(out.empty());
    EXPECT_TRUE(All(store).empty());
    EXPECT_EQ(UserLayer(store), persister.user);
}

TEST(SettingsManagerLoadTest, LoadUserSettingsFillsTheUserLayerAlone)
{
    RecordingPersister persister;
    SettingsManager store(&persister, nullptr, nullptr, false);
    persister.user = Ini("[A]\nx=1\n[SecureB]\n");
    store.LoadUserSettings();
    EXPECT_EQ(UserLayer(store), Ini("[A]\nx=1\n"));
    EXPECT_TRUE(All(store).empty());
}

TEST(SettingsManagerLoadTest, WhatALoadThrowsPassesOutAndTheStoreIsUnlockedAsFarAsItGot)
{
    RecordingPersister persister;
    persister.defaults = {Ini("[A]\nx=1\n")};
    persister.beforeLoadUser = [] { throw std::runtime_error("unreadable"); };
    EXPECT_THROW(SettingsManager(&persister, nullptr, nullptr, false), std::runtime_error);

    SettingsManager store(&persister, nullptr, nullptr, true);
    EXPECT_THROW(store.LoadSettings(), std::runtime_error);
    auto reader = std::async(std::launch::async, [&] { return All(store); });
    ASSERT_EQ(reader.wait_for(10s), std::future_status::ready);
    EXPECT_EQ(reader.get(), Ini("[A]\nx=1\n"));
}

TEST(SettingsManagerLoadTest, NothingIsSavedOnDestruction)
{
    RecordingPersister persister;
    {
        SettingsManager store(&persister, nullptr, nullptr, false);
        store.MergeSettings(Ini("[A]\n"), SettingsManager::DoNotPersist);
    }
    EXPECT_EQ(persister.saveCount, 0);
}

}  // namespace
}  // namespace korlo::settings::server
