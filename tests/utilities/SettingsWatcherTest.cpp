#include "settings/SettingsWatcher.h"

#include <atomic>
#include <future>
#include <string>
#include <thread>

#include <gmock/gmock.h>

#include "support/Files.h"
#include "support/ScriptedServer.h"
#include "support/StoreClients.h"

namespace korlo::settings
{
namespace
{

using Mode = KorloSettingsClient::OperationMode;

constexpr const char* Settings = "[Audio]\nvolume=40\nmuted=true\nname=Main\n[Net]\nport=80\n";

class SettingsWatcherTest : public testing::TestWithParam<Mode>
{
protected:
    /// Binds a variable of each type, to two groups, and runs the first update.
    void Start()
    {
        watcher.AddSetting("Audio", "volume", &volume);
        watcher.AddSetting("Audio", "muted", &muted);
        watcher.AddSetting("Audio", "name", &name);
        watcher.AddSetting("Net", "port", &port);
        ASSERT_TRUE(watcher.UpdateSettings());
        store.Settle();
    }

    void Change(const std::string& settings)
    {
        store.Change(settings);
        store.Settle();
    }

    StoreClients store{GetParam(), Settings};
    int volume = -1;
    bool muted = false;
    std::string name = "before";
    int port = -1;
    SettingsWatcher watcher{&store.Client()};
};

TEST_P(SettingsWatcherTest, AddSettingWritesNothing)
{
    watcher.AddSetting("Audio", "volume", &volume);
    watcher.AddSetting("Audio", "muted", &muted);
    watcher.AddSetting("Audio", "name", &name);
    EXPECT_EQ(volume, -1);
    EXPECT_FALSE(muted);
    EXPECT_EQ(name, "before");
}

TEST_P(SettingsWatcherTest, TheFirstUpdateWritesEveryVariable)
{
    Start();
    EXPECT_EQ(volume, 40);
    EXPECT_TRUE(muted);
    EXPECT_EQ(name, "Main");
    EXPECT_EQ(port, 80);
}

TEST_P(SettingsWatcherTest, MissingSettingsAreZeroFalseAndEmpty)
{
    muted = true;
    watcher.AddSetting("Audio", "missing", &volume);
    watcher.AddSetting("Audio", "missing", &muted);
    watcher.AddSetting("Missing", "name", &name);
    EXPECT_TRUE(watcher.UpdateSettings());
    EXPECT_EQ(volume, 0);
    EXPECT_FALSE(muted);
    EXPECT_EQ(name, "");
}

TEST_P(SettingsWatcherTest, MalformedSettingsAreZeroAndFalse)
{
    Start();
    Change("[Audio]\nvolume=abc\nmuted=perhaps\nname= \n[Net]\nport=99999999999\n");
    EXPECT_TRUE(watcher.UpdateSettings());
    EXPECT_EQ(volume, 0);
    EXPECT_FALSE(muted);
    EXPECT_EQ(name, "");
    EXPECT_EQ(port, 0);
}

TEST_P(SettingsWatcherTest, AChangeOfOneGroupRewritesEveryVariable)
{
    Start();
    volume = 1;
    muted = false;
    name = "mine";
    Change("[Net]\nport=81\n");
    EXPECT_EQ(port, 80) << "variables are written by the update alone";

    EXPECT_TRUE(watcher.UpdateSettings());

    EXPECT_EQ(port, 81);
    EXPECT_EQ(volume, 40);
    EXPECT_TRUE(muted);
    EXPECT_EQ(name, "Main");
}

TEST_P(SettingsWatcherTest, AnUpdateWithNothingNewLeavesTheVariables)
{
    Start();
    volume = 1;
    name = "mine";
    EXPECT_FALSE(watcher.UpdateSettings());
    EXPECT_FALSE(watcher.TryUpdateSettings());
    Change("[Other]\nx=1\n");
    EXPECT_FALSE(watcher.UpdateSettings());
    EXPECT_EQ(volume, 1);
    EXPECT_EQ(name, "mine");
}

TEST_P(SettingsWatcherTest, AnErasedGroupEmptiesItsVariables)
{
    Start();
    store.Erase("Audio");
    store.Settle();
    EXPECT_TRUE(watcher.UpdateSettings());
    EXPECT_EQ(volume, 0);
    EXPECT_FALSE(muted);
    EXPECT_EQ(name, "");
    EXPECT_EQ(port, 80);
}

TEST_P(SettingsWatcherTest, TryUpdateIsRefusedBeforeTheFirstUpdate)
{
    watcher.AddSetting("Audio", "volume", &volume);
    EXPECT_EQ(MessageOf([this] { watcher.TryUpdateSettings(); }), "TryUpdate called before Update");
    EXPECT_EQ(volume, -1);
}

TEST_P(SettingsWatcherTest, TryUpdateWritesWhatUpdateWould)
{
    Start();
    Change("[Audio]\nvolume=41\n");
    EXPECT_TRUE(watcher.TryUpdateSettings());
    EXPECT_EQ(volume, 41);
    EXPECT_FALSE(watcher.TryUpdateSettings());
}

TEST_P(SettingsWatcherTest, TwoBindingsToOneGroupFollowTheSameChange)
{
    Start();
    Change("[Audio]\nvolume=41\nname=Second\n");
    EXPECT_TRUE(watcher.UpdateSettings());
    EXPECT_EQ(volume, 41);
    EXPECT_EQ(name, "Second");
    EXPECT_FALSE(watcher.UpdateSettings());
}

TEST_P(SettingsWatcherTest, BindingsAreWrittenInTheOrderOfTheirRegistration)
{
    watcher.AddSetting("Net", "port", &volume);
    watcher.AddSetting("Audio", "volume", &volume);
    EXPECT_TRUE(watcher.UpdateSettings());
    EXPECT_EQ(volume, 40);
}

TEST_P(SettingsWatcherTest, AGroupWithAStarIsWatchedAsAPatternAndReadByItsName)
{
    watcher.AddSetting("Aud*", "volume", &volume);
    EXPECT_TRUE(watcher.UpdateSettings());
    EXPECT_EQ(volume, 0) << "no group has that name";
    store.Settle();
    Change("[Audio]\nvolume=41\n");
    EXPECT_TRUE(watcher.UpdateSettings());
    EXPECT_EQ(volume, 0);
}

TEST_P(SettingsWatcherTest, ALateBindingSeesOnlyWhatIsWatchedAlready)
{
    watcher.AddSetting("Audio", "volume", &volume);
    ASSERT_TRUE(watcher.UpdateSettings());
    watcher.AddSetting("Audio", "name", &name);
    watcher.AddSetting("Net", "port", &port);
    EXPECT_FALSE(watcher.UpdateSettings());
    EXPECT_EQ(name, "before");
    store.Settle();
    Change("[Net]\nport=81\n");
    EXPECT_FALSE(watcher.UpdateSettings()) << "the late group is not subscribed";
    Change("[Audio]\nvolume=41\n");

    EXPECT_TRUE(watcher.UpdateSettings());

    EXPECT_EQ(volume, 41);
    EXPECT_EQ(name, "Main");
    EXPECT_EQ(port, 0) << "the late group was never read";
}

TEST_P(SettingsWatcherTest, AVariableThatIsNullIsRefused)
{
    const char* refusal = "variable was NULL";
    EXPECT_EQ(MessageOf([this] { watcher.AddSetting("A", "x", static_cast<int*>(nullptr)); }), refusal);
    EXPECT_EQ(MessageOf([this] { watcher.AddSetting("A", "x", static_cast<bool*>(nullptr)); }), refusal);
    EXPECT_EQ(MessageOf([this] { watcher.AddSetting("A", "x", static_cast<std::string*>(nullptr)); }), refusal);
    EXPECT_TRUE(watcher.UpdateSettings());
}

INSTANTIATE_TEST_SUITE_P(Modes, SettingsWatcherTest,
                         testing::Values(Mode::Local, Mode::LocalMultiThreaded, Mode::MultiThreaded), NameOfMode);

/// A local client goes on calling a watcher that was destroyed, so these are for the others.
class SettingsWatcherEndTest : public testing::TestWithParam<Mode>
{
protected:
    StoreClients store{GetParam(), Settings};
};

TEST_P(SettingsWatcherEndTest, ADestroyedWatcherLeavesTheVariables)
{
    int volume = -1;
    {
        SettingsWatcher watcher(&store.Client());
        watcher.AddSetting("Audio", "volume", &volume);
        ASSERT_TRUE(watcher.UpdateSettings());
    }
    store.Change("[Audio]\nvolume=41\n");
    store.Settle();
    EXPECT_EQ(volume, 40);
}

TEST_P(SettingsWatcherEndTest, AWatcherMayBeDestroyedWhileNotificationsArrive)
{
    std::atomic<bool> stop = false;
    std::thread changer([&] {
        for (int count = 0; !stop; ++count)
        {
            store.Client().SetValue("[Audio]volume", std::to_string(count));
            store.Client().GetValue("[Audio]volume");  // keeps pace with the server
        }
    });
    for (int round = 0; round < 50; ++round)
    {
        int volume = -1;
        SettingsWatcher watcher(&store.Client());
        watcher.AddSetting("Audio", "volume", &volume);
        ASSERT_TRUE(watcher.UpdateSettings());
        while (round % 2 == 0 && !watcher.TryUpdateSettings())
        {
            std::this_thread::yield();
        }
        EXPECT_GE(volume, 0);
    }
    stop = true;
    changer.join();
}

INSTANTIATE_TEST_SUITE_P(Modes, SettingsWatcherEndTest, testing::Values(Mode::LocalMultiThreaded, Mode::MultiThreaded),
                         NameOfMode);

class SettingsWatcherRefusalTest : public testing::TestWithParam<Mode>
{
protected:
    StoreClients store{GetParam(), Settings};
};

TEST_P(SettingsWatcherRefusalTest, ASingleThreadedClientRefusesTheFirstUpdate)
{
    int volume = -1;
    SettingsWatcher watcher(&store.Client());
    watcher.AddSetting("Audio", "volume", &volume);
    EXPECT_EQ(MessageOf([&watcher] { watcher.UpdateSettings(); }),
              "KorloSettingsClient::Subscribe not supported in single threaded mode");
    EXPECT_EQ(volume, -1);
    EXPECT_EQ(MessageOf([&watcher] { watcher.TryUpdateSettings(); }), "TryUpdate called before Update");
}

INSTANTIATE_TEST_SUITE_P(Modes, SettingsWatcherRefusalTest,
                         testing::Values(Mode::SingleThreaded, Mode::LocalSingleThreaded), NameOfMode);

TEST(SettingsWatcherConstructionTest, ANullClientIsRefused)
{
    EXPECT_EQ(MessageOf([] { SettingsWatcher watcher(nullptr); }), "client was NULL");
}

TEST(SettingsWatcherWireTest, TwoBindingsToOneGroupReadAndSubscribeItOnce)
{
    ScriptedServer server;
    auto requests = std::async(std::launch::async, [&server] {
        const auto pPeer = server.Accept();
        std::string heard = pPeer->Read(3);
        pPeer->Send("data\n[A]\nx=1\ny=2\n.\n");
        return heard + pPeer->Read(4);
    });
    KorloSettingsClient client(Mode::MultiThreaded);
    int x = 0;
    int y = 0;
    {
        SettingsWatcher watcher(&client);
        watcher.AddSetting("A", "x", &x);
        watcher.AddSetting("A", "y", &y);
        EXPECT_TRUE(watcher.UpdateSettings());
    }
    EXPECT_EQ(x, 1);
    EXPECT_EQ(y, 2);
    client.RestoreToDefaults(GroupNameCollection{});  // a request that is known to be the next
    EXPECT_EQ(requests.get(), "get delimited\nA\n.\nsubscribe\nA\n.\nrestore\n");
}

}  // namespace
}  // namespace korlo::settings
