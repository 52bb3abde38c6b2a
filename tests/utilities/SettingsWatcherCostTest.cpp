// What an update takes from the heap.

#include <deque>
#include <ostream>
#include <string>

#include <gtest/gtest.h>

#include "settings/KorloSettingsClient.h"
#include "settings/SettingsWatcher.h"
#include "support/Heap.h"

namespace korlo::settings
{
namespace
{

/// What was allocated.
struct Cost
{
    long long allocations;
    long long bytes;

    friend bool operator==(const Cost& left, const Cost& right) = default;
};

std::ostream& operator<<(std::ostream& stream, const Cost& cost)
{
    return stream << cost.allocations << " allocations of " << cost.bytes << " bytes in all";
}

std::string Group(int number)
{
    return "Group" + std::to_string(10000 + number);
}

/// A store of so many groups, and variables for the first so many of them, up to date. The client is local, so that a
/// change is noted on this thread, before the update that is measured.
class Following
{
public:
    Following(int groups, int watched) : _client(KorloSettingsClient::Local, Document(groups)), _watcher(&_client)
    {
        for (int number = 0; number < watched; ++number)
        {
            _watcher.AddSetting(Group(number), "number", &_numbers.emplace_back(-1));
        }
        _watcher.UpdateSettings();
    }

    /// Of an update after that many groups have changed.
    Cost OfUpdateAfter(int changedGroups)
    {
        ++_value;
        for (int number = 0; number < changedGroups; ++number)
        {
            _client.SetValue(SettingLocator(Group(number), "number"), std::to_string(_value));
        }
        const Cost before{heap.allocations, heap.requestedBytes};
        const bool updated = _watcher.UpdateSettings();
        const Cost cost{heap.allocations - before.allocations, heap.requestedBytes - before.bytes};
        EXPECT_EQ(updated, changedGroups > 0);
        EXPECT_EQ(_numbers.front(), changedGroups > 0 ? _value : _numbers.front());
        return cost;
    }

private:
    static core::IniFile Document(int groups)
    {
        core::IniFile document;
        for (int number = 0; number < groups; ++number)
        {
            document.SetInt(Group(number), "number", number);
            document.SetValue(Group(number), "text", "a text that is too long to lie within the string itself");
        }
        return document;
    }

    int _value = 1000;
    KorloSettingsClient _client;
    std::deque<int> _numbers;
    SettingsWatcher _watcher;
};

TEST(SettingsWatcherCostTest, AnUpdateWithNothingNewAllocatesNothing)
{
    Following following(1000, 1000);
    EXPECT_EQ(following.OfUpdateAfter(0), (Cost{0, 0}));
}

TEST(SettingsWatcherCostTest, AnUpdateAllocatesForTheChangedGroupsWhateverElseIsWatchedOrStored)
{
    Following few(10, 10);
    Following manyWatched(1000, 1000);
    Following manyStored(5000, 10);
    for (int round = 0; round < 3; ++round)
    {
        const Cost cost = few.OfUpdateAfter(1);
        EXPECT_GT(cost.allocations, 0);
        EXPECT_EQ(manyWatched.OfUpdateAfter(1), cost);
        EXPECT_EQ(manyStored.OfUpdateAfter(1), cost);
    }
}

TEST(SettingsWatcherCostTest, WhatAnUpdateAllocatesGrowsWithTheChangedGroups)
{
    Following following(1000, 1000);
    following.OfUpdateAfter(10);
    const Cost one = following.OfUpdateAfter(1);
    const Cost ten = following.OfUpdateAfter(10);
    EXPECT_LE(ten.allocations, 10 * one.allocations);
    EXPECT_LE(ten.bytes, 10 * one.bytes + 1024);
}

}  // namespace
}  // namespace korlo::settings
