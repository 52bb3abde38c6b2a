// Many threads in one store. What is not guarded here on purpose is for the thread sanitizer to find.
#include "settings/server/SettingsManager.h"

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "settings/server/SerializationManager.h"
#include "support/Callbacks.h"
#include "support/Documents.h"
#include "support/RecordingPersister.h"
#include "support/Selection.h"

namespace korlo::settings::server
{
namespace
{

using namespace std::chrono_literals;
using common::GroupNameMatcher;
using core::IniFile;

/// Runs the body on several threads at once, with the number of the thread.
void OnThreads(int count, const std::function<void(int)>& body)
{
    std::vector<std::future<void>> threads;
    for (int number = 0; number < count; ++number)
    {
        threads.push_back(std::async(std::launch::async, body, number));
    }
    for (std::future<void>& thread : threads)
    {
        thread.get();
    }
}

TEST(SettingsManagerThreadTest, NoIncrementByTestAndMergeIsLost)
{
    RecordingPersister persister;
    persister.defaults = {Ini("[Counter]\nvalue=0\n")};
    SettingsManager store(&persister, nullptr, nullptr, false);
    OnThreads(4, [&store](int) {
        for (int done = 0; done < 50;)
        {
            IniFile expected;
            store.GetGroups(expected, "Counter");
            IniFile changes;
            changes.SetInt("Counter", "value", expected.GetIntOrDefault("Counter", "value", -1) + 1);
            done += store.TestAndMerge(expected, changes) ? 1 : 0;
        }
    });
    EXPECT_EQ(persister.user.GetIntOrDefault("Counter", "value", -1), 200);
    EXPECT_EQ(persister.saveCount, 200);
}

TEST(SettingsManagerThreadTest, AReaderNeverSeesHalfAChange)
{
    RecordingPersister persister;
    persister.defaults = {Ini("[A]\nleft=0\n[B]\nright=0\n")};
    SettingsManager store(&persister, nullptr, nullptr, false);
    std::atomic<int> writersLeft = 2;
    OnThreads(4, [&](int number) {
        if (number < 2)
        {
            for (int i = 0; i < 300; ++i)
            {
                IniFile changes;
                changes.SetInt("A", "left", i);
                changes.SetInt("B", "right", i);
                i % 3 == 0 ? store.OverwriteSettings(GroupNameCollection{"A", "B"}, changes)
                           : store.MergeSettings(changes, static_cast<unsigned int>(i % 2));
            }
            --writersLeft;
            return;
        }
        while (writersLeft > 0)
        {
            IniFile seen;
            store.GetGroups(seen, MatcherOf({"A", "B"}));
            ASSERT_EQ(seen.GetValueOrDefault("A", "left"), seen.GetValueOrDefault("B", "right"));
        }
    });
}

TEST(SettingsManagerThreadTest, EveryOperationRunsBesideEveryOther)
{
    RecordingPersister persister;
    persister.defaults = {Ini("[A]\nx=0\n[B]\nx=0\n[KorloSettings/LoadPriority]\nA=1\n")};
    SettingsManager store(&persister, nullptr, nullptr, false);
    const SerializationManager forms;
    const std::vector<std::function<void()>> operations = {
        [&] { store.MergeSettings(Ini("[A]\nx=1\n"), 0); },
        [&] { store.MergeSettings(Ini("[B]\nx=1\n"), SettingsManager::DoNotPersist); },
        [&] { store.TestAndMerge(Ini("[A]\nx=1\n"), Ini("[A]\nx=2\n")); },
        [&] { store.OverwriteSettings("A", Ini("[A]\nx=3\n")); },
        [&] {
            store.RestoreToDefaults(MatcherOf({"A", "B"}));
        },
        [&] {
            IniFile out;
            store.GetGroups(out, "*");
        },
        [&] {
            std::ostringstream out;
            store.DumpUserSettings(out);
            store.DumpAllSettings(out);
            store.WriteGroups(out, MatcherOf({"*"}), *forms.GetSerializer("ini"));
        },
        [&] {
            RecordingCallback callback;
            store.Subscribe(&callback, GroupNameCollection{"A", "B*"});
            GroupNameCollection groups;
            store.GetAllSubscribedGroups(groups);
            store.Unsubscribe(&callback);
        },
    };
    OnThreads(static_cast<int>(operations.size()), [&](int number) {
        for (int i = 0; i < 50; ++i)
        {
            operations[static_cast<std::size_t>(number)]();
        }
    });
    store.OverwriteSettings("*", Ini("[A]\nx=end\n"));
    IniFile now;
    store.GetGroups(now, "*");
    EXPECT_EQ(now, Ini("[A]\nx=end\n"));
}

TEST(SettingsManagerThreadTest, RestoresLoadTheirDefaultsOneAfterTheOther)
{
    RecordingPersister persister;
    persister.defaults = {Ini("[A]\nx=0\n[KorloSettings/LoadPriority]\nA=1\n"),
                          Ini("[A]\nx=1\n[B]\nx=1\n[KorloSettings/LoadPriority]\nA=2\nB=1\n")};
    std::atomic<int> inside = 0;
    std::atomic<bool> overlapped = false;
    persister.beforeLoadDefaults = [&] {
        overlapped = overlapped || inside.fetch_add(1) != 0;
        inside.fetch_sub(1);
    };
    SettingsManager store(&persister, nullptr, nullptr, false);
    OnThreads(4, [&store](int) {
        for (int i = 0; i < 50; ++i)
        {
            store.RestoreToDefaults(MatcherOf({"A", "B"}));
        }
    });
    EXPECT_FALSE(overlapped);
    EXPECT_EQ(persister.user, Ini("[A]\nx=1\n[B]\nx=1\n"));
    EXPECT_EQ(persister.saveCount, 200);
}

TEST(SettingsManagerThreadTest, ARestoreWaitsForADeferredLoad)
{
    RecordingPersister persister;
    persister.defaults = {Ini("[A]\nx=1\n[B]\nx=1\n")};
    persister.user = Ini("[A]\nx=2\n[B]\nx=2\n");
    std::promise<void> loading;
    std::vector<std::thread::id> loaders;  // guarded by what is tested here: the thread sanitizer looks on
    persister.beforeLoadDefaults = [&] {
        loaders.push_back(std::this_thread::get_id());
        if (loaders.size() == 1)
        {
            loading.set_value();
        }
    };
    SettingsManager store(&persister, nullptr, nullptr, true);
    auto restoring = std::async(std::launch::async, [&store] { store.RestoreToDefaults(MatcherOf({"A"})); });
    EXPECT_EQ(loading.get_future().wait_for(50ms), std::future_status::timeout);
    store.LoadSettings();
    ASSERT_EQ(restoring.wait_for(10s), std::future_status::ready);
    ASSERT_EQ(loaders.size(), 2u);
    EXPECT_EQ(loaders[0], std::this_thread::get_id());
    EXPECT_EQ(persister.user, Ini("[A]\nx=1\n[B]\nx=2\n"));
}

TEST(SettingsManagerThreadTest, OthersReadAndChangeTheStoreWhileARestoreReadsTheDefaults)
{
    RecordingPersister persister;
    persister.defaults = {Ini("[A]\nx=1\n")};
    SettingsManager store(&persister, nullptr, nullptr, false);
    bool done = false;
    persister.beforeLoadDefaults = [&] {
        auto other = std::async(std::launch::async, [&store] {
            IniFile out;
            store.GetGroups(out, "A");
            store.MergeSettings(Ini("[Meanwhile]\n"), 0);
        });
        done = other.wait_for(10s) == std::future_status::ready;
    };
    store.RestoreToDefaults(MatcherOf({"A"}));
    EXPECT_TRUE(done);
    EXPECT_EQ(persister.user, Ini("[A]\nx=1\n[Meanwhile]\n"));
}

TEST(SettingsManagerThreadTest, ReadersWaitForTheSaveOfAChange)
{
    RecordingPersister persister;
    SettingsManager store(&persister, nullptr, nullptr, false);
    std::future<std::string> reader;
    persister.beforeSave = [&] {
        reader = std::async(std::launch::async, [&store] {
            IniFile out;
            store.GetGroups(out, "A");
            return out.GetValueOrDefault("A", "x");
        });
        EXPECT_EQ(reader.wait_for(5ms), std::future_status::timeout);
    };
    store.MergeSettings(Ini("[A]\nx=1\n"), 0);
    ASSERT_EQ(reader.wait_for(10s), std::future_status::ready);
    EXPECT_EQ(reader.get(), "1");
}

TEST(SettingsManagerThreadTest, ReadersShareTheStore)
{
    // A serializer that stays in the store until a second reader has come through.
    class WaitingSerializer : public ISettingsSerializer
    {
    public:
        explicit WaitingSerializer(std::function<void()> wait) : _wait(std::move(wait)) {}
        void OnSerialize(const IniFile&, const GroupNameMatcher&, std::ostream&) const override { _wait(); }
        void OnDeserialize(std::istream&, IniFile&) const override {}

    private:
        std::function<void()> _wait;
    };
    SettingsManager store;
    std::future_status status = std::future_status::timeout;
    const WaitingSerializer serializer([&] {
        auto other = std::async(std::launch::async, [&store] {
            std::ostringstream out;
            store.DumpAllSettings(out);
        });
        status = other.wait_for(10s);
    });
    std::ostringstream out;
    store.WriteGroups(out, GroupNameMatcher(), serializer);
    EXPECT_EQ(status, std::future_status::ready);
}

TEST(SettingsManagerThreadTest, SubscribingWaitsForNoReaderOrWriter)
{
    RecordingPersister persister;
    SettingsManager store(&persister, nullptr, nullptr, false);
    RecordingCallback callback;
    std::future_status status = std::future_status::timeout;
    persister.beforeSave = [&] {
        auto other = std::async(std::launch::async, [&] {
            store.Subscribe(&callback, "A");
            store.Unsubscribe(&callback);
        });
        status = other.wait_for(10s);
    };
    store.MergeSettings(Ini("[A]\n"), 0);
    EXPECT_EQ(status, std::future_status::ready);
}

}  // namespace
}  // namespace korlo::settings::server
