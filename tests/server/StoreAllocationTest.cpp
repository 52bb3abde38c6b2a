// What the store does when the heap has nothing left. A program of its own: see support/Heap.h.

#include <string>

#include <gtest/gtest.h>

#include "settings/common/CallbackDispatcher.h"
#include "settings/server/SerializationManager.h"
#include "settings/server/SettingsManager.h"
#include "support/Callbacks.h"
#include "support/Documents.h"
#include "support/FailEachAllocation.h"
#include "support/Heap.h"

namespace korlo::settings
{
namespace
{

TEST(StoreAllocationTest, ASerializationManagerThatRunsOutOfMemoryLeaksNothing)
{
    FailEachAllocation([] { const server::SerializationManager manager; },
                       [](bool, long long left) { EXPECT_EQ(left, 0); });
}

TEST(StoreAllocationTest, FiguresAreRightWhereverMemoryRunsOutInAChange)
{
    core::IniFile changes;
    changes.SetValue("New group with a long name", "a key with a long name", "a value that needs the heap");
    changes.SetValue("Old", "another key with a long name", "a value that needs the heap");
    server::SettingsManager store;
    const auto reset = [&store] { store.OverwriteSettings("*", Ini("[Old]\nk=1\n")); };
    reset();
    FailEachAllocation([&] { store.MergeSettings(changes, 0); },
                       [&](bool, long long) {
                           core::IniFile all;
                           store.GetGroups(all, "*");
                           std::size_t keys = 0;
                           for (const auto& [group, values] : all)
                           {
                               keys += values.size();
                           }
                           EXPECT_EQ(store.GetFigures().groups, all.size());
                           EXPECT_EQ(store.GetFigures().keys, keys);
                           reset();
                       });
}

TEST(StoreAllocationTest, AChangeOfAKnownValueThatNobodyHearsOfAllocatesNothing)
{
    core::IniFile first;
    first.SetValue("A group with a long name", "a key with a long name", "a value that needs the heap");
    core::IniFile second = first;
    second.SetValue("A group with a long name", "a key with a long name", "another value of its size..");
    server::SettingsManager store;
    RecordingCallback callback;
    store.Subscribe(&callback, GroupNameCollection{"Another group", "Pattern*"});
    store.MergeSettings(second, 0);
    store.MergeSettings(first, 0);

    const long long before = heap.allocations;
    store.MergeSettings(second, 0);
    EXPECT_TRUE(store.TestAndMerge(second, first));
    EXPECT_FALSE(store.TestAndMerge(second, first));
    EXPECT_EQ(heap.allocations, before);
}

/// Names of 17 characters, or patterns.
GroupNameCollection MakeNames(std::size_t count, const std::string& prefix, const std::string& end)
{
    GroupNameCollection names;
    for (std::size_t i = 0; i < count; ++i)
    {
        names.insert(prefix + std::to_string(1'000'000 + i) + end);
    }
    return names;
}

class SubscriptionHeapTest : public testing::Test
{
protected:
    GroupNameCollection Subscribed() const
    {
        GroupNameCollection groups;
        _store.GetAllSubscribedGroups(groups);
        return groups;
    }

    std::size_t CallsFor(const core::IniFile& changes)
    {
        const std::size_t before = _callback.GetGroups().size();
        _store.MergeSettings(changes, server::SettingsManager::DoNotPersist);
        return _callback.GetGroups().size() - before;
    }

    server::SettingsManager _store;
    RecordingCallback _callback;
};

TEST_F(SubscriptionHeapTest, SubscribersThatLeaveLeaveNothingBehind)
{
    RecordingCallback staying;
    _store.Subscribe(&staying, "Kept/*");
    const long long blocks = heap.blocks;
    for (const char* const prefix : {"First/Grp-", "Other/Grp-", "Third/Grp-"})
    {
        _store.Subscribe(&_callback, MakeNames(1000, prefix, ""));
        _store.Subscribe(&_callback, MakeNames(1000, prefix, "*"));
        EXPECT_GT(heap.blocks, blocks);
        _store.Unsubscribe(&_callback);
        EXPECT_EQ(heap.blocks, blocks);
    }
    _store.MergeSettings(Ini("[Kept/x]\n"), 0);
    EXPECT_EQ(staying.GetGroups().size(), 1u);
}

TEST_F(SubscriptionHeapTest, ASubscriptionTakesLittleMoreThanItsNames)
{
    constexpr std::size_t count = 10'000;
    constexpr std::size_t bytes = count * 18;  // with the line break that each took in the request
    RecordingCallback other;
    const GroupNameCollection names = MakeNames(count, "First/Grp-", "");
    for (IChangeCallback* const pCallback : {&_callback, &other})
    {
        const long long before = heap.usableBytes;
        _store.Subscribe(pCallback, names);
        EXPECT_LT(heap.usableBytes - before, static_cast<long long>(10 * bytes));
        const long long requested = heap.requestedBytes;
        _store.Subscribe(pCallback, names);
        EXPECT_LT(heap.requestedBytes - requested, static_cast<long long>(10 * bytes));
    }
}

TEST_F(SubscriptionHeapTest, ARequestCostsWhatItAsksForHoweverMuchIsSubscribed)
{
    constexpr int requests = 300;
    constexpr long long mostAllocations = 40;
    _store.Subscribe(&_callback, MakeNames(10'000, "First/Grp-", ""));
    for (int request = 0; request < requests; ++request)
    {
        const std::string name = "Other/" + std::to_string(request % 2 == 0 ? request : 0);
        const long long before = heap.allocations;
        _store.Subscribe(&_callback, name);
        ASSERT_LE(heap.allocations - before, mostAllocations) << "request " << request;
    }
}

TEST_F(SubscriptionHeapTest, ASubscriptionThatRunsOutOfMemoryIsMadeAsAWholeOrNotAtAll)
{
    const core::IniFile change = Ini("[First/Grp-1000001]\n");
    const core::IniFile match = Ini("[Third/Grp-1000001/x]\n");
    const GroupNameCollection before{"Other"};
    GroupNameCollection asked = MakeNames(3, "First/Grp-", "");
    asked.merge(MakeNames(3, "Third/Grp-", "*"));
    GroupNameCollection both = asked;
    both.insert("Other");
    for (const bool isKnown : {false, true})
    {
        SCOPED_TRACE(isKnown);
        if (isKnown)
        {
            _store.Subscribe(&_callback, before);
        }
        FailEachAllocation([&] { _store.Subscribe(&_callback, asked); },
                           [&](bool isDone, long long left) {
                               const GroupNameCollection known = isKnown ? before : GroupNameCollection();
                               EXPECT_EQ(Subscribed(), !isDone ? known : isKnown ? both : asked);
                               EXPECT_EQ(CallsFor(change), isDone ? 1u : 0u);
                               EXPECT_EQ(CallsFor(match), isDone ? 1u : 0u);
                               EXPECT_EQ(left > 0, isDone);
                           });
        _store.Unsubscribe(&_callback);
    }
}

TEST(StoreAllocationTest, WithoutAnObserverAChangeAllocatesOnlyWhatItsPartsDo)
{
    const core::IniFile changes = Ini("[A]\nk=1\nlonger than any text that needs no heap=1\n[New]\nk=1\n");
    const core::IniFile content = Ini("[A]\nk=0\n[B]\nk=0\n");
    const common::CallbackDispatcher dispatcher;
    core::IniFile settings = content;
    const long long start = heap.allocations;
    settings.MergeSettings(changes);
    dispatcher.OnChange(changes);
    const long long parts = heap.allocations - start;

    server::SettingsManager store;
    store.MergeSettings(content, server::SettingsManager::DoNotPersist);
    const long long before = heap.allocations;
    store.MergeSettings(changes, server::SettingsManager::DoNotPersist);
    EXPECT_EQ(heap.allocations - before, parts);
}

}  // namespace
}  // namespace korlo::settings
