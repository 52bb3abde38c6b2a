#include "settings/IniWatcher.h"

#include <atomic>
#include <string>
#include <thread>

#include <gmock/gmock.h>

#include "support/Documents.h"
#include "support/Files.h"
#include "support/StoreClients.h"

namespace korlo::settings
{
namespace
{

using core::IniFile;
using Mode = KorloSettingsClient::OperationMode;

constexpr const char* Settings = "[A]\nx=1\ny=2\n[B]\nz=3\n[C/1]\nw=4\n";

class IniWatcherTest : public testing::TestWithParam<Mode>
{
protected:
    /// The first update, of A, B and all of C.
    void Start()
    {
        watcher.AddPattern("A");
        watcher.AddPattern("B");
        watcher.AddPattern("C/*");
        ASSERT_TRUE(watcher.Update());
        store.Settle();
    }

    void Change(const std::string& settings)
    {
        store.Change(settings);
        store.Settle();
    }

    StoreClients store{GetParam(), Settings};
    IniFile target = Ini("[Mine]\nk=v\n");
    IniWatcher watcher{&store.Client(), &target};
};

TEST_P(IniWatcherTest, TheFirstUpdateReplacesTheTargetByTheWatchedGroups)
{
    watcher.AddPattern("A");
    watcher.AddPattern("C*");
    watcher.AddPattern("Nobody");
    EXPECT_EQ(TextOf(target), "[Mine]\nk=v\n") << "nothing is read before";

    EXPECT_TRUE(watcher.Update());

    EXPECT_EQ(TextOf(target), "[A]\nx=1\ny=2\n[C/1]\nw=4\n");
}

TEST_P(IniWatcherTest, TheFirstUpdateReturnsTrueAndClearsTheTargetEvenIfNothingIsWatched)
{
    EXPECT_TRUE(watcher.Update());
    EXPECT_TRUE(target.empty());
    store.Settle();
    Change("[A]\nx=9\n");
    EXPECT_FALSE(watcher.Update());
    EXPECT_TRUE(target.empty());
}

TEST_P(IniWatcherTest, ALaterUpdateWithoutAChangeLeavesTheTargetUntouched)
{
    Start();
    target.SetValue("A", "mine", "1");
    const IniFile before = target;

    EXPECT_FALSE(watcher.Update());
    EXPECT_FALSE(watcher.TryUpdate());

    EXPECT_EQ(target, before);
}

TEST_P(IniWatcherTest, AChangeReachesTheTargetWithTheNextUpdateOnly)
{
    Start();
    const IniFile before = target;
    Change("[A]\nx=9\n");
    EXPECT_EQ(target, before);

    EXPECT_TRUE(watcher.Update());

    EXPECT_EQ(TextOf(target), "[A]\nx=9\ny=2\n[B]\nz=3\n[C/1]\nw=4\n");
    EXPECT_FALSE(watcher.Update()) << "each change is applied once";
}

TEST_P(IniWatcherTest, AChangedGroupIsReplacedWholeAndTheOthersStay)
{
    Start();
    target.SetValue("A", "mine", "1");
    target.SetValue("B", "mine", "1");
    target.SetValue("Mine", "k", "v");
    Change("[A]\nx=9\n");

    EXPECT_TRUE(watcher.Update());

    EXPECT_EQ(TextOf(target), "[A]\nx=9\ny=2\n[B]\nmine=1\nz=3\n[C/1]\nw=4\n[Mine]\nk=v\n");
}

TEST_P(IniWatcherTest, OfTwoChangesOfAGroupOnlyTheSecondContentIsApplied)
{
    Start();
    store.Other().OverwriteSettings("A", Ini("[A]\nfirst=1\n"));
    store.Settle();
    store.Other().OverwriteSettings("A", Ini("[A]\nsecond=2\n"));
    store.Settle();

    EXPECT_TRUE(watcher.Update());

    EXPECT_EQ(TextOf(target), "[A]\nsecond=2\n[B]\nz=3\n[C/1]\nw=4\n");
    EXPECT_FALSE(watcher.Update());
}

TEST_P(IniWatcherTest, ChangesOfSeveralGroupsAreAppliedTogether)
{
    Start();
    Change("[A]\nx=7\n");
    Change("[C/2]\nv=8\n");

    EXPECT_TRUE(watcher.Update());

    EXPECT_EQ(TextOf(target), "[A]\nx=7\ny=2\n[B]\nz=3\n[C/1]\nw=4\n[C/2]\nv=8\n");
}

TEST_P(IniWatcherTest, AnUpdateTouchesOnlyTheGroupsThatChangedSinceTheLast)
{
    Start();
    Change("[A]\nx=7\n");
    EXPECT_TRUE(watcher.Update());
    target.SetValue("A", "x", "mine");
    Change("[B]\nz=9\n");

    EXPECT_TRUE(watcher.Update());

    EXPECT_EQ(TextOf(target), "[A]\nx=mine\ny=2\n[B]\nz=9\n[C/1]\nw=4\n");
}

TEST_P(IniWatcherTest, AnErasedGroupDisappearsFromTheTarget)
{
    Start();
    store.Erase("B");
    store.Settle();
    EXPECT_TRUE(target.HasGroup("B"));

    EXPECT_TRUE(watcher.Update());

    EXPECT_EQ(TextOf(target), "[A]\nx=1\ny=2\n[C/1]\nw=4\n");
}

TEST_P(IniWatcherTest, AGroupThatChangesAndIsErasedBeforeTheUpdateIsGone)
{
    Start();
    Change("[B]\nz=9\n");
    store.Erase("B");
    store.Settle();

    EXPECT_TRUE(watcher.Update());

    EXPECT_FALSE(target.HasGroup("B"));
}

TEST_P(IniWatcherTest, AGroupThatIsErasedAndComesBackHasItsNewContentOnly)
{
    Start();
    store.Erase("A");
    Change("[A]\nnew=1\n");

    EXPECT_TRUE(watcher.Update());

    EXPECT_EQ(TextOf(target), "[A]\nnew=1\n[B]\nz=3\n[C/1]\nw=4\n");
}

TEST_P(IniWatcherTest, APatternAddedAfterTheFirstUpdateIsNeitherFetchedNorSubscribed)
{
    watcher.AddPattern("A");
    ASSERT_TRUE(watcher.Update());
    watcher.AddPattern("B");
    EXPECT_FALSE(watcher.Update());
    store.Settle();
    Change("[B]\nz=9\n");

    EXPECT_FALSE(watcher.Update());

    EXPECT_EQ(TextOf(target), "[A]\nx=1\ny=2\n");
}

TEST_P(IniWatcherTest, TryUpdateIsRefusedBeforeTheFirstUpdate)
{
    EXPECT_EQ(MessageOf([this] { watcher.TryUpdate(); }), "TryUpdate called before Update");
    EXPECT_EQ(TextOf(target), "[Mine]\nk=v\n");
}

TEST_P(IniWatcherTest, TryUpdateAppliesWhatUpdateWould)
{
    Start();
    Change("[A]\nx=9\n");
    store.Erase("B");
    store.Settle();

    EXPECT_TRUE(watcher.TryUpdate());

    EXPECT_EQ(TextOf(target), "[A]\nx=9\ny=2\n[C/1]\nw=4\n");
    EXPECT_FALSE(watcher.TryUpdate());
}

TEST_P(IniWatcherTest, WhileNotificationsArriveTheTargetAlwaysHoldsOneWholeState)
{
    Start();
    std::thread changer([this] {
        for (int count = 1; count <= 200; ++count)
        {
            const std::string text = std::to_string(count);
            store.Client().MergeSettings(Ini("[A]\nx=" + text + "\ny=" + text + "\n"));
        }
    });
    for (bool applied = false; target.GetValueOrDefault("A", "x") != "200"; applied = !applied)
    {
        if (applied ? watcher.Update() : watcher.TryUpdate())
        {
            EXPECT_EQ(target.GetValue("A", "x"), target.GetValue("A", "y"));
        }
        std::this_thread::yield();
    }
    changer.join();
}

TEST_P(IniWatcherTest, TryUpdateReturnsFalseWhileANotificationIsBeingGathered)
{
    constexpr int changeCount = 15;
    Start();
    IniFile large;
    for (int key = 0; key < 3000; ++key)
    {
        large.SetInt("A", "key" + std::to_string(key), key);
    }
    std::thread changer([this, &large] {
        for (int count = 1; count <= changeCount; ++count)
        {
            large.SetInt("A", "x", -count);
            store.Client().MergeSettings(large);
        }
    });
    // Meeting a busy mutex again and again, it must not throw.
    EXPECT_EQ(MessageOf([this] {
                  while (target.GetIntOrDefault("A", "x", 0) != -changeCount)
                  {
                      watcher.TryUpdate();
                  }
              }),
              "");
    changer.join();
}

INSTANTIATE_TEST_SUITE_P(Modes, IniWatcherTest,
                         testing::Values(Mode::Local, Mode::LocalMultiThreaded, Mode::MultiThreaded), NameOfMode);

/// A local client goes on calling a watcher that was destroyed, so these are for the others.
class IniWatcherEndTest : public testing::TestWithParam<Mode>
{
protected:
    StoreClients store{GetParam(), Settings};
};

TEST_P(IniWatcherEndTest, ADestroyedWatcherLeavesItsTargetAsItIs)
{
    IniFile target;
    {
        IniWatcher watcher(&store.Client(), &target);
        watcher.AddPattern("*");
        watcher.Update();
        store.Settle();
        store.Change("[A]\nx=8\n");
        store.Settle();
    }
    const IniFile before = target;
    store.Change("[A]\nx=9\n");
    store.Settle();
    EXPECT_EQ(target, before);
    EXPECT_EQ(target.GetValue("A", "x"), "1");
}

TEST_P(IniWatcherEndTest, AWatcherMayBeDestroyedWhileNotificationsArrive)
{
    std::atomic<bool> stop = false;
    std::thread changer([&] {
        for (int count = 0; !stop; ++count)
        {
            store.Client().SetValue("[A]x", std::to_string(count));
            store.Client().GetValue("[A]x");  // keeps pace with the server
        }
    });
    for (int round = 0; round < 50; ++round)
    {
        IniFile target;
        IniWatcher watcher(&store.Client(), &target);
        watcher.AddPattern("A");
        ASSERT_TRUE(watcher.Update());
        while (round % 2 == 0 && !watcher.Update())
        {
            std::this_thread::yield();
        }
        EXPECT_EQ(target.GetValue("A", "y"), "2");
    }
    stop = true;
    changer.join();
}

INSTANTIATE_TEST_SUITE_P(Modes, IniWatcherEndTest, testing::Values(Mode::LocalMultiThreaded, Mode::MultiThreaded),
                         NameOfMode);

TEST(IniWatcherConstructionTest, ANullClientIsRefusedBeforeANullTarget)
{
    KorloSettingsClient client(Mode::Local);
    IniFile target;
    EXPECT_EQ(MessageOf([] { IniWatcher watcher(nullptr, nullptr); }), "client was NULL");
    EXPECT_EQ(MessageOf([&target] { IniWatcher watcher(nullptr, &target); }), "client was NULL");
    EXPECT_EQ(MessageOf([&client] { IniWatcher watcher(&client, nullptr); }), "targetIni was NULL");
}

class IniWatcherRefusalTest : public testing::TestWithParam<Mode>
{
protected:
    StoreClients store{GetParam(), Settings};
};

TEST_P(IniWatcherRefusalTest, ASingleThreadedClientRefusesTheFirstUpdateEachTime)
{
    IniFile target;
    IniWatcher watcher(&store.Client(), &target);
    watcher.AddPattern("B");
    for (int attempt = 0; attempt < 2; ++attempt)
    {
        EXPECT_EQ(MessageOf([&watcher] { watcher.Update(); }),
                  "KorloSettingsClient::Subscribe not supported in single threaded mode");
        EXPECT_EQ(TextOf(target), "[B]\nz=3\n") << "it is read before it is subscribed";
        EXPECT_EQ(MessageOf([&watcher] { watcher.TryUpdate(); }), "TryUpdate called before Update");
    }
}

INSTANTIATE_TEST_SUITE_P(Modes, IniWatcherRefusalTest, testing::Values(Mode::SingleThreaded, Mode::LocalSingleThreaded),
                         NameOfMode);

}  // namespace
}  // namespace korlo::settings
