// A store that is used before main begins and after it has ended.
#include "settings/server/SettingsManager.h"

#include <cstdio>
#include <memory>

#include <gtest/gtest.h>
#include <unistd.h>

#include "support/Documents.h"
#include "support/RecordingPersister.h"

namespace korlo::settings::server
{
namespace
{

constexpr const char* Record = "KorloSettings/Data/DeletedGroups";

/// Loads its store when it is made, and uses it when it goes.
///
/// Thread safety: none of its own; made before main and destroyed after it.
class GlobalStore
{
public:
    GlobalStore()
    {
        persister.defaults = {Ini("[Erased]\nx=1\n[Kept]\nx=1\n")};
        persister.user = Ini("[KorloSettings/Data/DeletedGroups]\n1=Erased\n");
        pStore = std::make_unique<SettingsManager>(&persister, nullptr, nullptr, false);
        pStore->GetGroups(loaded, "*");
    }

    GlobalStore(const GlobalStore&) = delete;
    GlobalStore& operator=(const GlobalStore&) = delete;

    ~GlobalStore()
    {
        pStore->OverwriteSettings("Kept", core::IniFile());
        if (persister.user != Ini("[KorloSettings/Data/DeletedGroups]\n1=Erased\n2=Kept\n"))
        {
            std::fputs("A store that is used at exit lost its record of erased groups\n", stderr);
            ::_exit(1);  // too late for a test to fail
        }
    }

    RecordingPersister persister;
    std::unique_ptr<SettingsManager> pStore;
    core::IniFile loaded;
};

// Before every global that has no such priority, and so before all that a library could have.
__attribute__((init_priority(200))) GlobalStore globalStore;

TEST(SettingsManagerLifetimeTest, AGlobalStoreKeepsErasedDefaultsAway)
{
    EXPECT_EQ(globalStore.loaded, Ini("[Kept]\nx=1\n"));
    EXPECT_FALSE(globalStore.loaded.HasGroup(Record));
}

}  // namespace
}  // namespace korlo::settings::server
