// What a store tells an IChangePersister.

#include <functional>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "settings/server/SettingsManager.h"
#include "support/Documents.h"
#include "support/Files.h"
#include "support/RecordingPersister.h"

namespace korlo::settings::server
{
namespace
{

/// Keeps what it is told, and applies it to what was saved.
///
/// Thread safety: none of its own; it relies on what the store promises.
class RecordingChangePersister : public IChangePersister
{
public:
    explicit RecordingChangePersister(RecordingPersister& persister) : _persister(persister) {}

    void SaveChange(const UserLayerChange& change, const core::IniFile& userSettings) override
    {
        if (beforeSave)
        {
            beforeSave();
        }
        changes.push_back(change);
        change.ApplyTo(_persister.user);
        EXPECT_EQ(_persister.user, userSettings);
    }

    std::vector<UserLayerChange> changes;
    std::function<void()> beforeSave;

private:
    RecordingPersister& _persister;
};

class UserLayerEditTest : public testing::Test
{
protected:
    /// What the store told of the last change: the groups that go, and what comes.
    void ExpectTold(const GroupNameCollection& removed, const std::string& merged)
    {
        ASSERT_FALSE(_changes.changes.empty());
        EXPECT_EQ(_changes.changes.back().removed, removed);
        EXPECT_EQ(TextOf(_changes.changes.back().merged), merged);
    }

    void Start(const std::string& defaults, const std::string& user)
    {
        _persister.defaults = {Ini(defaults)};
        _persister.user = Ini(user);
        _pStore = std::make_unique<SettingsManager>(&_persister, nullptr, nullptr, false);
        _pStore->SetChangePersister(&_changes);
    }

    RecordingPersister _persister;
    RecordingChangePersister _changes{_persister};
    std::unique_ptr<SettingsManager> _pStore;
};

TEST_F(UserLayerEditTest, AMergeIsToldAsTheValuesThatAreNew)
{
    Start("[A]\nk=0\n", "[A]\nj=1\n");
    _pStore->MergeSettings(Ini("[A]\nj=1\nk=0\nl=2\n[B]\n"), 0);
    ExpectTold({}, "[A]\nk=0\nl=2\n[B]\n");
    _pStore->MergeSettings(Ini("[A]\nj=1\nk=0\nl=2\n[B]\n"), 0);
    ExpectTold({}, "");
    EXPECT_TRUE(_pStore->TestAndMerge(Ini("[A]\nj=1\n"), Ini("[A]\nj=2\n[DeviceSecure]\nk=1\n")));
    ExpectTold({}, "[A]\nj=2\n");
    _pStore->MergeSettings(Ini("[A]\nj=3\n"), SettingsManager::DoNotPersist);
    EXPECT_EQ(_changes.changes.size(), 3u);
    EXPECT_EQ(_persister.saveCount, 0);
}

TEST_F(UserLayerEditTest, AnOverwriteIsToldWithTheRecordOfErasedGroups)
{
    Start("[D]\nk=0\n", "[A]\nj=1\nk=1\n[B]\nk=1\n");
    _pStore->OverwriteSettings(GroupNameCollection{"A", "D"}, Ini("[A]\nk=1\n"));
    ExpectTold({"A"}, "[A]\nk=1\n[KorloSettings/Data/DeletedGroups]\n1=A\n2=D\n");
    _pStore->OverwriteSettings(GroupNameCollection{"A", "B"}, Ini("[A]\nk=1\nl=1\n"));
    ExpectTold({"B"}, "[A]\nl=1\n[KorloSettings/Data/DeletedGroups]\n3=B\n");
    _pStore->OverwriteSettings(GroupNameCollection{"A"}, Ini("[A]\nk=1\nl=1\n"));
    ExpectTold({}, "");
}

TEST_F(UserLayerEditTest, ARestoreIsToldAsTheGroupsThatGoAndTheDefaultsThatCome)
{
    Start("[A]\nk=0\n[D]\nk=0\n", "[A]\nj=1\nk=1\n[B]\nk=1\n");
    common::GroupNameMatcher matcher;
    matcher.AddNameOrPattern("*");
    _pStore->RestoreToDefaults(matcher);
    ExpectTold({"A", "B"}, "[A]\nk=0\n[D]\nk=0\n");
}

TEST_F(UserLayerEditTest, ThePatternThatErasesTheRecordItselfIsToldToo)
{
    Start("[A]\nk=0\n", "[KorloSettings/Data/DeletedGroups]\n1=X\n2=Y\n");
    common::GroupNameMatcher matcher;
    matcher.AddNameOrPattern("*");
    _pStore->RestoreToDefaults(matcher);
    ExpectTold({"KorloSettings/Data/DeletedGroups"}, "[A]\nk=0\n");
    _pStore->OverwriteSettings("Z", {});
    ExpectTold({}, "[KorloSettings/Data/DeletedGroups]\n1=Z\n");
}

TEST_F(UserLayerEditTest, AfterAChangeThatFailedTheWholeLayerIsSavedOnce)
{
    Start("", "[A]\nk=1\n");
    _changes.beforeSave = [] { throw osa::Exception("full"); };
    EXPECT_EQ(MessageOf([this] { _pStore->MergeSettings(Ini("[A]\nk=2\n"), 0); }), "full");
    _changes.beforeSave = nullptr;
    _persister.beforeSave = [] { throw osa::Exception("still full"); };
    EXPECT_EQ(MessageOf([this] { _pStore->MergeSettings(Ini("[A]\nj=2\n"), 0); }), "still full");
    _persister.beforeSave = nullptr;
    _pStore->MergeSettings(Ini("[A]\nl=2\n"), 0);
    EXPECT_EQ(_persister.saveCount, 1);
    EXPECT_EQ(_persister.user, Ini("[A]\nj=2\nk=2\nl=2\n"));
    _pStore->MergeSettings(Ini("[A]\nm=2\n"), 0);
    EXPECT_EQ(_persister.saveCount, 1);
    ExpectTold({}, "[A]\nm=2\n");
}

TEST_F(UserLayerEditTest, WhateverIsChangedTheTellingMakesTheSameLayer)
{
    Start("[A]\nx=0\ny=0\n[B]\nx=0\n[AB]\n", "[B]\nz=1\n");
    std::mt19937 random(20261122);
    const auto pick = [&random](const std::vector<std::string>& from) { return from[random() % from.size()]; };
    const auto document = [&] {
        core::IniFile ini;
        for (unsigned int keys = static_cast<unsigned int>(random()) % 4; keys > 0; --keys)
        {
            ini[pick({"A", "B", "AB", "C"})][pick({"x", "y", "z"})] = pick({"0", "1"});
        }
        return ini;
    };
    for (int round = 0; round < 2000; ++round)  // each change is compared by the persister
    {
        common::GroupNameMatcher matcher;
        switch (random() % 4)
        {
        case 0:
            _pStore->OverwriteSettings(GroupNameCollection{pick({"A", "A*", "*", "*B"}), pick({"C", "B"})}, document());
            break;
        case 1:
            matcher.AddNameOrPattern(pick({"A", "A*", "*", "Korlo*"}));
            _pStore->RestoreToDefaults(matcher);
            break;
        default:
            _pStore->MergeSettings(document(), 0);
            break;
        }
    }
    EXPECT_EQ(_persister.saveCount, 0);
}

}  // namespace
}  // namespace korlo::settings::server
