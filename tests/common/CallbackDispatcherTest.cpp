#include "settings/common/CallbackDispatcher.h"

#include <array>
#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "settings/server/SettingsManager.h"
#include "support/Callbacks.h"
#include "support/Documents.h"
#include "support/Files.h"
#include "support/Selection.h"

namespace korlo::settings::common
{
namespace
{

using namespace std::chrono_literals;
using core::IniFile;

using GroupsOfCalls = std::vector<GroupNameCollection>;

GroupNameCollection Subscribed(const CallbackDispatcher& dispatcher)
{
    GroupNameCollection groups;
    dispatcher.GetAllSubscribedGroups(groups);
    return groups;
}

TEST(CallbackDispatcherTest, AChangeThatNobodyAskedForCallsNobody)
{
    CallbackDispatcher dispatcher;
    RecordingCallback audio;
    RecordingCallback nothing;
    dispatcher.AddCallback(&audio, GroupNameCollection{"Audio"});
    dispatcher.AddCallback(&nothing, GroupNameCollection{});
    dispatcher.OnChange({"Net", "Audio/Out"}, IniFile());
    EXPECT_TRUE(audio.GetChanges().empty());
    EXPECT_TRUE(nothing.GetChanges().empty());
}

TEST(CallbackDispatcherTest, TellsWhetherAGroupWasAskedForByNameOrByPattern)
{
    CallbackDispatcher dispatcher;
    RecordingCallback audio;
    RecordingCallback video;
    EXPECT_FALSE(dispatcher.IsAskedFor("Audio"));
    dispatcher.AddCallback(&audio, GroupNameCollection{"Audio"});
    dispatcher.AddCallback(&video, GroupNameCollection{"Net", "Video/*"});
    for (const char* group : {"Audio", "Net", "Video/", "Video/Out"})
    {
        SCOPED_TRACE(group);
        EXPECT_TRUE(dispatcher.IsAskedFor(group));
        EXPECT_EQ(dispatcher.IsAskedForByName(group), !std::string(group).starts_with("Video/"));
    }
    for (const char* group : {"", "Aud", "Audio/Out", "Video", "Network"})
    {
        SCOPED_TRACE(group);
        EXPECT_FALSE(dispatcher.IsAskedFor(group));
        EXPECT_FALSE(dispatcher.IsAskedForByName(group));
    }
}

TEST(CallbackDispatcherTest, ASubscriberIsCalledOnceWithTheGroupsThatItAskedForAndTheWholeDocument)
{
    CallbackDispatcher dispatcher;
    RecordingCallback callback;
    dispatcher.AddCallback(&callback, GroupNameCollection{"Audio", "Video/*"});

    const IniFile settings = Ini("[Audio]\nx=1\n[Net]\ny=2\n[Other]\nz=3\n");
    dispatcher.OnChange({"Audio", "Video/Out", "Net"}, settings);
    EXPECT_EQ(callback.GetChanges(), (std::vector<Change>{{{"Audio", "Video/Out"}, settings}}));
}

TEST(CallbackDispatcherTest, ADocumentAloneStandsForAllItsGroups)
{
    CallbackDispatcher dispatcher;
    RecordingCallback callback;
    dispatcher.AddCallback(&callback, GroupNameCollection{"*"});

    const IniFile settings = Ini("[Audio]\nx=1\n[Empty]\n");
    dispatcher.OnChange(settings);
    EXPECT_EQ(callback.GetChanges(), (std::vector<Change>{{{"Audio", "Empty"}, settings}}));
}

TEST(CallbackDispatcherTest, ADocumentOfManyGroupsReachesWhoAskedForOneByNameOrPattern)
{
    CallbackDispatcher dispatcher;
    RecordingCallback byName;
    RecordingCallback byPattern;
    dispatcher.AddCallback(&byName, GroupNameCollection{"Video"});
    const IniFile settings = Ini("[Audio]\nx=1\n[Net/Wifi]\ny=2\n[Video]\nz=3\n");
    dispatcher.OnChange(settings);
    dispatcher.AddCallback(&byPattern, GroupNameCollection{"Net/*"});
    dispatcher.OnChange(settings);
    dispatcher.OnChange(Ini("[Audio]\nx=1\n[Net]\n"));
    EXPECT_EQ(byName.GetGroups(), (GroupsOfCalls{{"Video"}, {"Video"}}));
    EXPECT_EQ(byPattern.GetChanges(), (std::vector<Change>{{{"Net/Wifi"}, settings}}));
}

TEST(CallbackDispatcherTest, WhatACallbackDoesToTheChangedDocumentTheNextOneDoesNotSee)
{
    CallbackDispatcher dispatcher;
    IniFile settings = Ini("[Audio]\nx=1\n");
    const IniFile original = settings;
    std::array<FunctionCallback, 2> callbacks;
    int calls = 0;
    for (FunctionCallback& callback : callbacks)
    {
        callback.Do([&](const GroupNameCollection&, const IniFile& changed) {
            ++calls;
            EXPECT_EQ(changed, original);
            settings.Clear();
            EXPECT_EQ(changed, original);
        });
        dispatcher.AddCallback(&callback, GroupNameCollection{"Audio"});
    }
    dispatcher.OnChange(settings);
    EXPECT_EQ(calls, 2);
}

TEST(CallbackDispatcherTest, AnEmptyDocumentCallsNobody)
{
    CallbackDispatcher dispatcher;
    RecordingCallback callback;
    dispatcher.AddCallback(&callback, GroupNameCollection{"*"});
    dispatcher.OnChange(IniFile());
    dispatcher.OnChange(GroupNameCollection(), Ini("[Audio]\n"));
    EXPECT_TRUE(callback.GetChanges().empty());
}

TEST(CallbackDispatcherTest, SubscribersAreCalledInAscendingOrderOfAddress)
{
    CallbackDispatcher dispatcher;
    std::vector<const IChangeCallback*> called;
    std::array<FunctionCallback, 5> callbacks;
    for (FunctionCallback& callback : callbacks)
    {
        callback.Do([&called, &callback](const GroupNameCollection&, const IniFile&) { called.push_back(&callback); });
    }
    for (const std::size_t i : {3u, 0u, 4u, 2u, 1u})
    {
        dispatcher.AddCallback(&callbacks[i], GroupNameCollection{"A"});
    }
    dispatcher.OnChange({"A"}, IniFile());
    EXPECT_EQ(called, (std::vector<const IChangeCallback*>{&callbacks[0], &callbacks[1], &callbacks[2], &callbacks[3],
                                                           &callbacks[4]}));
}

TEST(CallbackDispatcherTest, EachSubscriberGetsItsOwnSelection)
{
    CallbackDispatcher dispatcher;
    std::array<RecordingCallback, 3> callbacks;
    dispatcher.AddCallback(&callbacks[0], GroupNameCollection{"A", "B"});
    dispatcher.AddCallback(&callbacks[1], GroupNameCollection{"C"});
    dispatcher.AddCallback(&callbacks[2], MatcherOf({"B*"}));
    dispatcher.OnChange({"A", "B", "B/x"}, IniFile());
    EXPECT_EQ(callbacks[0].GetGroups(), (GroupsOfCalls{{"A", "B"}}));
    EXPECT_EQ(callbacks[1].GetGroups(), GroupsOfCalls());
    EXPECT_EQ(callbacks[2].GetGroups(), (GroupsOfCalls{{"B", "B/x"}}));
}

TEST(CallbackDispatcherTest, SubscribingAgainAddsToWhatWasAskedFor)
{
    CallbackDispatcher dispatcher;
    RecordingCallback callback;
    dispatcher.AddCallback(&callback, GroupNameCollection{"A"});
    dispatcher.AddCallback(&callback, MatcherOf({"B", "C*"}));
    dispatcher.AddCallback(&callback, GroupNameCollection{"A"});
    dispatcher.OnChange({"A", "B", "C1", "D"}, IniFile());
    EXPECT_EQ(callback.GetGroups(), (GroupsOfCalls{{"A", "B", "C1"}}));
}

TEST(CallbackDispatcherTest, ANullCallbackIsRefused)
{
    CallbackDispatcher dispatcher;
    EXPECT_EQ(MessageOf([&] { dispatcher.AddCallback(nullptr, GroupNameCollection{"A"}); }), "callback was NULL");
    EXPECT_EQ(MessageOf([&] { dispatcher.AddCallback(nullptr, GroupNameMatcher()); }), "callback was NULL");
    EXPECT_EQ(Subscribed(dispatcher), GroupNameCollection());
}

TEST(CallbackDispatcherTest, AllSubscribedGroupsAreNamesAndPatternsOfEverybodyAddedToTheOutput)
{
    CallbackDispatcher dispatcher;
    RecordingCallback one;
    RecordingCallback two;
    dispatcher.AddCallback(&one, GroupNameCollection{"A", "B/*"});
    dispatcher.AddCallback(&two, GroupNameCollection{"A", "C"});

    GroupNameCollection groups = {"kept"};
    dispatcher.GetAllSubscribedGroups(groups);
    EXPECT_EQ(groups, (GroupNameCollection{"A", "B/*", "C", "kept"}));
}

TEST(CallbackDispatcherTest, AThrowEndsTheWalkAndPassesOut)
{
    CallbackDispatcher dispatcher;
    std::array<FunctionCallback, 2> callbacks;
    int secondCalls = 0;
    bool fails = true;
    callbacks[0].Do([&fails](const GroupNameCollection&, const IniFile&) {
        if (fails)
        {
            throw std::runtime_error("refused");
        }
    });
    callbacks[1].Do([&secondCalls](const GroupNameCollection&, const IniFile&) { ++secondCalls; });
    dispatcher.AddCallback(&callbacks[0], GroupNameCollection{"A"});
    dispatcher.AddCallback(&callbacks[1], GroupNameCollection{"A"});

    EXPECT_THROW(dispatcher.OnChange({"A"}, IniFile()), std::runtime_error);
    EXPECT_EQ(secondCalls, 0);

    // The mutex is free again, for other threads too.
    fails = false;
    auto dispatched = std::async(std::launch::async, [&] { dispatcher.OnChange({"A"}, IniFile()); });
    ASSERT_EQ(dispatched.wait_for(10s), std::future_status::ready);
    EXPECT_EQ(secondCalls, 1);
}

TEST(CallbackDispatcherTest, ACallbackMaySubscribeFromWithin)
{
    CallbackDispatcher dispatcher;
    RecordingCallback added;
    FunctionCallback adding;
    adding.Do([&](const GroupNameCollection&, const IniFile&) {
        dispatcher.AddCallback(&adding, GroupNameCollection{"B"});
        dispatcher.AddCallback(&added, GroupNameCollection{"C"});
    });
    dispatcher.AddCallback(&adding, GroupNameCollection{"A"});
    dispatcher.OnChange({"A"}, IniFile());
    EXPECT_EQ(Subscribed(dispatcher), (GroupNameCollection{"A", "B", "C"}));
    dispatcher.OnChange({"C"}, IniFile());
    EXPECT_EQ(added.GetGroups(), (GroupsOfCalls{{"C"}}));
}

TEST(CallbackDispatcherTest, ACallbackMayDispatchFromWithin)
{
    CallbackDispatcher dispatcher;
    std::vector<GroupNameCollection> calls;
    FunctionCallback callback;
    callback.Do([&](const GroupNameCollection& groups, const IniFile&) {
        calls.push_back(groups);
        if (groups.contains("A"))
        {
            dispatcher.OnChange({"B"}, IniFile());
        }
        calls.push_back(groups);
    });
    dispatcher.AddCallback(&callback, GroupNameCollection{"A", "B"});
    dispatcher.OnChange({"A"}, IniFile());
    EXPECT_EQ(calls, (GroupsOfCalls{{"A"}, {"B"}, {"B"}, {"A"}}));
}

TEST(CallbackDispatcherTest, DispatchesOfSeveralThreadsNeverOverlap)
{
    CallbackDispatcher dispatcher;
    std::atomic<int> inside = 0;
    std::atomic<bool> overlapped = false;
    int calls = 0;  // guarded by the dispatch alone: the thread sanitizer looks on
    FunctionCallback callback([&](const GroupNameCollection&, const IniFile&) {
        overlapped = overlapped || inside.fetch_add(1) != 0;
        ++calls;
        inside.fetch_sub(1);
    });
    dispatcher.AddCallback(&callback, GroupNameCollection{"A"});

    std::vector<std::future<void>> threads;
    for (int thread = 0; thread < 4; ++thread)
    {
        threads.push_back(std::async(std::launch::async, [&dispatcher] {
            for (int i = 0; i < 200; ++i)
            {
                dispatcher.OnChange({"A"}, IniFile());
            }
        }));
    }
    for (std::future<void>& thread : threads)
    {
        thread.get();
    }
    EXPECT_FALSE(overlapped);
    EXPECT_EQ(calls, 800);
}

TEST(CallbackDispatcherTest, ASecondDispatchWaitsUntilTheFirstEnds)
{
    CallbackDispatcher dispatcher;
    std::promise<void> entered;
    std::promise<void> mayLeave;
    std::vector<GroupNameCollection> calls;
    FunctionCallback callback([&](const GroupNameCollection& groups, const IniFile&) {
        calls.push_back(groups);
        if (groups.contains("first"))
        {
            entered.set_value();
            mayLeave.get_future().wait();
        }
    });
    dispatcher.AddCallback(&callback, GroupNameCollection{"*"});

    auto first = std::async(std::launch::async, [&] { dispatcher.OnChange({"first"}, IniFile()); });
    entered.get_future().wait();
    auto second = std::async(std::launch::async, [&] { dispatcher.OnChange({"second"}, IniFile()); });
    EXPECT_EQ(second.wait_for(5ms), std::future_status::timeout);
    mayLeave.set_value();
    first.get();
    second.get();
    EXPECT_EQ(calls, (GroupsOfCalls{{"first"}, {"second"}}));
}

// Removal belongs to the owners of dispatchers; the store is one.

TEST(CallbackDispatcherTest, RemovalDropsAllThatTheSubscriberAskedFor)
{
    server::SettingsManager store;
    RecordingCallback leaving;
    RecordingCallback staying;
    store.Subscribe(&leaving, GroupNameCollection{"A", "B", "L*"});
    store.Subscribe(&staying, GroupNameCollection{"B", "C"});
    store.Unsubscribe(&leaving);

    GroupNameCollection groups;
    store.GetAllSubscribedGroups(groups);
    EXPECT_EQ(groups, (GroupNameCollection{"B", "C"}));
    store.MergeSettings(Ini("[A]\n[B]\n"), 0);
    EXPECT_EQ(leaving.GetGroups(), GroupsOfCalls());
    EXPECT_EQ(staying.GetGroups(), (GroupsOfCalls{{"B"}}));
}

TEST(CallbackDispatcherTest, ARemovedSubscriberMaySubscribeAnew)
{
    server::SettingsManager store;
    RecordingCallback callback;
    store.Subscribe(&callback, "A");
    store.Unsubscribe(&callback);
    store.Subscribe(&callback, "B");
    store.MergeSettings(Ini("[A]\n[B]\n"), 0);
    EXPECT_EQ(callback.GetGroups(), (GroupsOfCalls{{"B"}}));
}

TEST(CallbackDispatcherTest, RemovingAnUnknownSubscriberDoesNothing)
{
    server::SettingsManager store;
    RecordingCallback callback;
    RecordingCallback unknown;
    store.Subscribe(&callback, "A");
    store.Unsubscribe(&unknown);
    store.Unsubscribe(nullptr);
    store.MergeSettings(Ini("[A]\n"), 0);
    EXPECT_EQ(callback.GetGroups(), (GroupsOfCalls{{"A"}}));
}

TEST(CallbackDispatcherTest, ACallbackMayRemoveItselfWhileItIsCalled)
{
    server::SettingsManager store;
    std::array<std::unique_ptr<FunctionCallback>, 3> callbacks;
    std::array<int, 3> calls = {};
    for (std::size_t i = 0; i < callbacks.size(); ++i)
    {
        callbacks[i] = std::make_unique<FunctionCallback>([&, i](const GroupNameCollection&, const IniFile&) {
            ++calls[i];
            store.Unsubscribe(callbacks[i].get());
        });
        store.Subscribe(callbacks[i].get(), "A");
    }
    store.MergeSettings(Ini("[A]\n"), 0);
    store.MergeSettings(Ini("[A]\n"), 0);
    EXPECT_EQ(calls, (std::array<int, 3>{1, 1, 1}));
}

TEST(CallbackDispatcherTest, ACallbackMayRemoveOthersWhileItIsCalled)
{
    for (const std::size_t remover : {0u, 1u, 2u})
    {
        SCOPED_TRACE("callback " + std::to_string(remover) + " removes the others");
        server::SettingsManager store;
        std::array<FunctionCallback, 3> callbacks;
        std::array<int, 3> calls = {};
        for (std::size_t i = 0; i < callbacks.size(); ++i)
        {
            callbacks[i].Do([&, i](const GroupNameCollection&, const IniFile&) {
                ++calls[i];
                for (std::size_t other = 0; i == remover && other < callbacks.size(); ++other)
                {
                    if (other != i)
                    {
                        store.Unsubscribe(&callbacks[other]);
                    }
                }
            });
            store.Subscribe(&callbacks[i], "A");
        }
        store.MergeSettings(Ini("[A]\n"), 0);
        for (std::size_t i = 0; i < callbacks.size(); ++i)
        {
            EXPECT_EQ(calls[i], i <= remover ? 1 : 0) << "callback " << i;
        }
        store.MergeSettings(Ini("[A]\n"), 0);
        EXPECT_EQ(calls[remover], 2);
    }
}

TEST(CallbackDispatcherTest, NoCallIsUnderWayWhenARemovalReturns)
{
    server::SettingsManager store;
    for (int round = 0; round < 100; ++round)
    {
        auto pCallback = std::make_unique<RecordingCallback>();
        store.Subscribe(pCallback.get(), "A");
        auto change = std::async(std::launch::async, [&store] { store.MergeSettings(Ini("[A]\n"), 0); });
        store.Unsubscribe(pCallback.get());
        pCallback.reset();  // a call that comes later would use what is gone, and the sanitizers see it
        change.get();
    }
}

TEST(CallbackDispatcherTest, SubscribersThatComeAndGoLeaveTheOthersCalled)
{
    server::SettingsManager store;
    RecordingCallback staying;
    store.Subscribe(&staying, GroupNameCollection{"Kept/*"});
    for (int i = 0; i < 1000; ++i)
    {
        RecordingCallback passing;
        const std::string group = "Passing/" + std::to_string(i);
        store.Subscribe(&passing, group);
        IniFile changes;
        changes[group];
        store.MergeSettings(changes, server::SettingsManager::DoNotPersist);
        ASSERT_EQ(passing.GetGroups(), (GroupsOfCalls{{group}}));
        store.Unsubscribe(&passing);
    }
    store.MergeSettings(Ini("[Kept/x]\n"), 0);
    EXPECT_EQ(staying.GetGroups(), (GroupsOfCalls{{"Kept/x"}}));
}

}  // namespace
}  // namespace korlo::settings::common
