#include "client/KorloSettingsClientImplLocal.h"

#include <chrono>
#include <future>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/Callbacks.h"
#include "support/Documents.h"
#include "support/Files.h"

namespace korlo::settings::client
{
namespace
{

using namespace std::chrono_literals;
using core::IniFile;

using Changes = std::vector<Change>;

IniFile All(const KorloSettingsClientImpl& client)
{
    IniFile all;
    client.GetSettings({"*"}, all);
    return all;
}

const IniFile& Defaults()
{
    static const IniFile defaults = Ini("[A]\nx=0\ny=0\n[B]\nz=0\n[Net/a]\nm=0\n[Net/b]\nm=0\n");
    return defaults;
}

TEST(KorloSettingsClientImplLocalTest, NullDefaultsGiveAnEmptyStore)
{
    KorloSettingsClientImplLocal client(nullptr);
    EXPECT_TRUE(All(client).empty());
    client.MergeSettings(Ini("[A]\nx=1\n"), 0);
    EXPECT_EQ(All(client), Ini("[A]\nx=1\n"));
}

TEST(KorloSettingsClientImplLocalTest, TheDefaultsAreCopied)
{
    auto pDefaults = std::make_unique<IniFile>(Defaults());
    KorloSettingsClientImplLocal client(pDefaults.get());
    pDefaults->Clear();
    pDefaults.reset();
    client.OverwriteSettings({"A"}, IniFile());
    client.RestoreToDefaults({"A"});
    EXPECT_EQ(All(client), Defaults());
}

TEST(KorloSettingsClientImplLocalTest, ThePersisterHandsOutTheDefaultsAndKeepsNothing)
{
    KorloSettingsClientImplLocal::LocalPersister persister(&Defaults());
    persister.SaveUserSettings(Ini("[A]\nx=9\n"));

    IniFile defaults;
    server::SettingsCombiner ofDefaults(defaults);
    persister.LoadDefaultSettings(ofDefaults);
    EXPECT_EQ(defaults, Defaults());

    IniFile user;
    server::SettingsCombiner ofUser(user);
    persister.LoadUserSettings(ofUser);
    EXPECT_TRUE(user.empty());
}

TEST(KorloSettingsClientImplLocalTest, RestrictedGroupsAndClaimsOfTheDefaultsAreDropped)
{
    const IniFile defaults = Ini("[A]\nx=1\n[SecureB]\ny=1\n[KorloSettings/LoadPriority]\nA=5\n");
    const KorloSettingsClientImplLocal client(&defaults);
    EXPECT_EQ(All(client), Ini("[A]\nx=1\n"));
}

TEST(KorloSettingsClientImplLocalTest, EachClientHasAStoreOfItsOwn)
{
    KorloSettingsClientImplLocal one(&Defaults());
    const KorloSettingsClientImplLocal other(&Defaults());
    one.MergeSettings(Ini("[A]\nx=1\n"), 0);
    EXPECT_EQ(All(other), Defaults());
}

TEST(KorloSettingsClientImplLocalTest, GetSettingsAddsNamesAndPatternsToTheDocument)
{
    const KorloSettingsClientImplLocal client(&Defaults());
    IniFile settings = Ini("[A]\nx=mine\nown=1\n");
    client.GetSettings({"A", "Net/*", "Missing"}, settings);
    EXPECT_EQ(settings, Ini("[A]\nx=0\ny=0\nown=1\n[Net/a]\nm=0\n[Net/b]\nm=0\n"));
}

TEST(KorloSettingsClientImplLocalTest, OperationsAreThoseOfTheStore)
{
    KorloSettingsClientImplLocal client(&Defaults());
    EXPECT_TRUE(client.TestAndMerge(Ini("[A]\nx=0\n"), Ini("[A]\nx=1\n")));
    EXPECT_FALSE(client.TestAndMerge(Ini("[A]\nx=0\n"), Ini("[A]\nx=2\n")));
    client.MergeSettings(Ini("[SecureX]\nx=1\n"), 0);
    client.OverwriteSettings({"Net/*"}, Ini("[Net/c]\nm=1\n"));
    EXPECT_EQ(All(client), Ini("[A]\nx=1\ny=0\n[B]\nz=0\n[Net/c]\nm=1\n"));
}

TEST(KorloSettingsClientImplLocalTest, ARestoreOfAPatternRestoresEveryMatchingGroup)
{
    KorloSettingsClientImplLocal client(&Defaults());
    client.MergeSettings(Ini("[Net/a]\nm=1\n[Net/b]\nm=1\n[Net/c]\nm=1\n[A]\nx=1\n"), 0);
    client.RestoreToDefaults({"Net/*"});
    EXPECT_EQ(All(client), Ini("[A]\nx=1\ny=0\n[B]\nz=0\n[Net/a]\nm=0\n[Net/b]\nm=0\n"));
}

TEST(KorloSettingsClientImplLocalTest, ARestoreUndoesOnlyPersistentChanges)
{
    KorloSettingsClientImplLocal client(&Defaults());
    client.MergeSettings(Ini("[A]\nx=1\nextra=1\n"), 1);
    client.RestoreToDefaults({"A"});
    IniFile group;
    client.GetSettings({"A"}, group);
    EXPECT_EQ(group, Ini("[A]\nextra=1\nx=0\ny=0\n"));
}

TEST(KorloSettingsClientImplLocalTest, SubscribersReceiveWholeGroupsAndNotOnlyTheChangedKeys)
{
    KorloSettingsClientImplLocal client(&Defaults());
    RecordingCallback callback;
    client.Subscribe(&callback, {"A"});
    client.MergeSettings(Ini("[A]\nx=1\n"), 0);
    EXPECT_EQ(callback.GetChanges(), (Changes{{{"A"}, Ini("[A]\nx=1\ny=0\n")}}));
}

TEST(KorloSettingsClientImplLocalTest, AnErasedGroupIsNamedAndNotInTheDocument)
{
    KorloSettingsClientImplLocal client(&Defaults());
    RecordingCallback callback;
    client.Subscribe(&callback, {"*"});
    client.OverwriteSettings({"A", "B"}, Ini("[B]\nw=1\n"));
    EXPECT_EQ(callback.GetChanges(), (Changes{{{"A", "B"}, Ini("[B]\nw=1\n")}}));
}

TEST(KorloSettingsClientImplLocalTest, OnlySubscribersToAChangedGroupAreCalled)
{
    KorloSettingsClientImplLocal client(&Defaults());
    RecordingCallback a;
    RecordingCallback b;
    client.Subscribe(&a, {"A"});
    client.Subscribe(&b, {"B"});
    client.MergeSettings(Ini("[A]\nx=1\n"), 0);
    EXPECT_EQ(a.GetChanges().size(), 1u);
    EXPECT_TRUE(b.GetChanges().empty());
}

TEST(KorloSettingsClientImplLocalTest, EverySubscriberIsCalledOnceWithItsOwnGroups)
{
    KorloSettingsClientImplLocal client(&Defaults());
    RecordingCallback one;
    RecordingCallback two;
    client.Subscribe(&one, {"A"});
    client.Subscribe(&two, {"Net/*"});
    client.Subscribe(&one, {"B"});
    client.MergeSettings(Ini("[A]\nx=1\n[B]\nz=1\n[Net/a]\nm=1\n"), 0);
    using Groups = std::vector<GroupNameCollection>;
    EXPECT_EQ(one.GetGroups(), (Groups{{"A", "B"}}));
    EXPECT_EQ(two.GetGroups(), (Groups{{"Net/a"}}));
}

TEST(KorloSettingsClientImplLocalTest, ANullCallbackIsRefused)
{
    KorloSettingsClientImplLocal client(&Defaults());
    EXPECT_EQ(MessageOf([&] { client.Subscribe(nullptr, {"A"}); }), "callback was NULL");
    client.MergeSettings(Ini("[A]\nx=1\n"), 0);
}

TEST(KorloSettingsClientImplLocalTest, ACallbackMayReadChangeAndSubscribeThroughItsClient)
{
    KorloSettingsClientImplLocal client(&Defaults());
    RecordingCallback b;
    std::string seen;
    FunctionCallback a;
    a.Do([&](const GroupNameCollection&, const IniFile&) {
        IniFile now;
        client.GetSettings({"A"}, now);
        seen = now.GetValueOrDefault("A", "x");
        client.Subscribe(&b, {"B"});
        client.MergeSettings(Ini("[B]\nz=1\n"), 0);
        EXPECT_TRUE(client.TestAndMerge(Ini("[B]\nz=1\n"), Ini("[B]\nz=2\n")));
        client.OverwriteSettings({"Net/a"}, IniFile());
        client.RestoreToDefaults({"Net/a"});
    });
    client.Subscribe(&a, {"A"});
    client.MergeSettings(Ini("[A]\nx=1\n"), 0);
    EXPECT_EQ(seen, "1");
    EXPECT_EQ(b.GetChanges(), (Changes{{{"B"}, Ini("[B]\nz=1\n")}, {{"B"}, Ini("[B]\nz=2\n")}}));
}

TEST(KorloSettingsClientImplLocalTest, WhatACallbackThrowsPassesOutAndNothingStaysLocked)
{
    KorloSettingsClientImplLocal client(&Defaults());
    bool fails = true;
    FunctionCallback callback([&fails](const GroupNameCollection&, const IniFile&) {
        if (fails)
        {
            throw std::runtime_error("refused");
        }
    });
    client.Subscribe(&callback, {"A"});
    EXPECT_THROW(client.MergeSettings(Ini("[A]\nx=1\n"), 0), std::runtime_error);
    fails = false;
    auto change = std::async(std::launch::async, [&client] {
        client.MergeSettings(Ini("[A]\ny=1\n"), 0);
        return All(client);
    });
    ASSERT_EQ(change.wait_for(10s), std::future_status::ready);
    EXPECT_TRUE(change.get().ContainsSettings(Ini("[A]\nx=1\ny=1\n")));
}

TEST(KorloSettingsClientImplLocalTest, ThreadsChangeReadAndSubscribeAtOnce)
{
    KorloSettingsClientImplLocal client(&Defaults());
    std::vector<std::unique_ptr<RecordingCallback>> callbacks;
    std::vector<std::future<void>> threads;
    for (int number = 0; number < 4; ++number)
    {
        callbacks.push_back(std::make_unique<RecordingCallback>());
        threads.push_back(std::async(std::launch::async, [&client, number, pCallback = callbacks.back().get()] {
            const std::string group = "Thread/" + std::to_string(number);
            client.Subscribe(pCallback, {group});
            for (int i = 0; i < 50; ++i)
            {
                IniFile changes;
                changes.SetInt(group, "i", i);
                client.MergeSettings(changes, static_cast<unsigned int>(i % 2));
                All(client);
            }
        }));
    }
    for (std::future<void>& thread : threads)
    {
        thread.get();
    }
    for (const auto& pCallback : callbacks)
    {
        EXPECT_EQ(pCallback->GetChanges().size(), 50u);
    }
}

}  // namespace
}  // namespace korlo::settings::client
