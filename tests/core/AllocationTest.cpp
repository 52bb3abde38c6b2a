// What documents take from the heap, and what they do when the heap has nothing left. A program of its own: see
// support/Heap.h.

#include <cstdio>
#include <functional>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <utility>

#include <gtest/gtest.h>

#include "korlo/core/IniFile.h"
#include "korlo/core/Logger.h"
#include "korlo/stl/TextStream.h"
#include "support/Heap.h"
#include "support/Rounds.h"

namespace korlo::core
{
namespace
{

using BareMap = std::map<std::string, std::map<std::string, std::string>>;

std::string Numbered(const char* format, int number)
{
    char buffer[64];
    std::snprintf(buffer, sizeof(buffer), format, number);
    return buffer;
}

/// Keys of 14 bytes, values of 20.
BareMap MakeBareMap(int groups, int keys)
{
    BareMap map;
    for (int group = 0; group < groups; ++group)
    {
        auto& values = map[Numbered("Subsystem/Unit%05d", group)];
        for (int key = 0; key < keys; ++key)
        {
            values[Numbered("parameter%05d", key * 7)] = Numbered("value-%014d", group * keys + key);
        }
    }
    return map;
}

IniFile MakeDocument(const BareMap& map)
{
    IniFile built;
    for (const auto& [group, values] : map)
    {
        for (const auto& [key, value] : values)
        {
            built.SetValue(group, key, value);
        }
    }
    std::stringstream text;
    built.SaveToStream(text);
    IniFile loaded;
    loaded.LoadFromStream(text);
    return loaded;
}

/// What making something leaves on the heap, as usable bytes.
template <typename Make>
double UsableBytesOf(Make make)
{
    const long long before = heap.usableBytes;
    const auto made = make();
    return static_cast<double>(heap.usableBytes - before);
}

/// What a copy asks of the heap; a copy of a loaded document is laid out as the loaded one is.
template <typename Document>
double RequestedBytesOf(const Document& document)
{
    const long long before = heap.requestedBytes;
    const Document copy = document;
    return static_cast<double>(heap.requestedBytes - before);
}

// Where pointers have 32 bits the strings themselves weigh more beside what a tree adds to each.
constexpr double MostOfBareMap = sizeof(void*) == 8 ? 0.75 : 0.85;

void ExpectToTakeLessThanTheBareMap(int groups, int keys)
{
    const BareMap map = MakeBareMap(groups, keys);
    const double bareUsable = UsableBytesOf([&map] { return std::make_unique<BareMap>(map); });
    const double usable = UsableBytesOf([&map] { return std::make_unique<IniFile>(MakeDocument(map)); });
    const double requested = RequestedBytesOf(MakeDocument(map));
    EXPECT_LE(usable, MostOfBareMap * bareUsable);
    EXPECT_LE(requested, MostOfBareMap * RequestedBytesOf(map));
}

IniFile FromText(const std::string& text)
{
    IniFile ini;
    ini.LoadFromString(text);
    return ini;
}

/// Groups of every layout: none, few and many keys, in a block, beside it and both, with erased ones.
IniFile MakeMixedDocument(const std::string& value)
{
    std::string text = "[empty]\n[few]\nb=" + value + "\na=1\n[many]\n";
    for (int i = 0; i < 40; ++i)
    {
        text += Numbered("a key of some length %d=", i) + value + "\n";
    }
    IniFile ini = FromText(text + "[few]\nc=" + value + "\n");
    ini.SetValue("added", "a key that fits no short string", value);
    ini.SetValue("many", "an added key", value);
    ini["many"].erase("a key of some length 7");
    return ini;
}

/// True when the document holds every key of `before`, with the value that it has there or in `change`, and else only
/// what is in `change`.
bool LiesBetween(const IniFile& ini, const IniFile& before, const IniFile& change)
{
    for (const auto& [group, values] : before)
    {
        for (const auto& [key, value] : values)
        {
            if (!ini.HasValue(group, key))
            {
                return false;
            }
        }
    }
    for (const auto& [group, values] : ini)
    {
        for (const auto& [key, value] : values)
        {
            const bool isOld = before.HasValue(group, key) && before.GetValue(group, key) == value;
            const bool isNew = change.HasValue(group, key) && change.GetValue(group, key) == value;
            if (!isOld && !isNew)
            {
                return false;
            }
        }
    }
    return IniFile(ini) == ini;
}

/// Carries the operation out on a copy of `before` with the first, second, ... allocation failing, until none is left
/// to fail.
void FailEachAllocation(const IniFile& before, const IniFile& change, const std::function<void(IniFile&)>& operation)
{
    for (long long allocation = 0;; ++allocation)
    {
        const long long blocks = heap.blocks;
        bool isValid = false;
        bool hasFailed = false;
        {
            IniFile ini = before;
            heap.failAfter = allocation;
            try
            {
                operation(ini);
            }
            catch (const std::bad_alloc&)
            {
            }
            hasFailed = heap.failAfter < 0;
            heap.failAfter = -1;
            isValid = LiesBetween(ini, before, change);
            ini.MergeSettings(change);
            isValid = isValid && ini.ContainsSettings(change);
        }
        ASSERT_TRUE(isValid) << "allocation " << allocation;
        ASSERT_EQ(heap.blocks, blocks) << "allocation " << allocation << " leaks";
        if (!hasFailed)
        {
            EXPECT_GT(allocation, 0);
            return;
        }
    }
}

constexpr const char* OldValue = "an old value that fits no short string";
constexpr const char* NewValue = "a new value, longer, that fits no short string and no room of an old one";

}  // namespace

TEST(AllocationTest, ADocumentOfADeviceTakesThreeQuartersOfABareMap)
{
    ExpectToTakeLessThanTheBareMap(600, 12);
}

TEST(AllocationTest, ALargeDocumentTakesThreeQuartersOfABareMap)
{
    ExpectToTakeLessThanTheBareMap(static_cast<int>(Rounds(20000)), 10);
}

TEST(AllocationTest, ReadingAPresentKeyAllocatesNothing)
{
    IniFile ini = MakeDocument(MakeBareMap(600, 40));
    ini.SetValue("a group that was added later", "a key that was added later", "a value that was added later");
    const IniFile& document = ini;
    for (const auto& [group, key] : {std::pair<std::string, std::string>("Subsystem/Unit00007", "parameter00007"),
                                     {"a group that was added later", "a key that was added later"}})
    {
        const long long before = heap.allocations;
        const bool found = document.HasGroup(group) && document.HasValue(group, key);
        const std::size_t length = document.GetValue(group, key).size();
        const bool unknown = document.HasValue(key, group) || document.HasValue(group, group);
        const int number = document.GetIntOrDefault(group, key, 7);
        const bool flag = document.GetBoolOrDefault(group, key, true);
        const std::size_t keys = document[group].size();
        const long long after = heap.allocations;
        EXPECT_EQ(after, before);
        EXPECT_TRUE(found && !unknown && length > 0 && number == 7 && flag && keys > 0);
    }
}

TEST(AllocationTest, WalkingAndComparingADocumentAllocatesNothing)
{
    IniFile ini = MakeMixedDocument(OldValue);
    const IniFile same = ini;
    const long long before = heap.allocations;
    std::size_t bytes = 0;
    for (const auto& [group, values] : ini)
    {
        for (auto pair = values.rbegin(); pair != values.rend(); ++pair)
        {
            bytes += pair->second.size();
        }
    }
    const bool equal = ini == same && ini.ContainsSettings(same);
    const long long after = heap.allocations;
    EXPECT_EQ(after, before);
    EXPECT_TRUE(equal && bytes > 0);
}

TEST(AllocationTest, ACopyAllocatesOneBlockAGroupAndItsLongStrings)
{
    const IniFile document = MakeDocument(MakeBareMap(50, 12));
    const long long before = heap.allocations;
    const IniFile copy = document;
    const long long after = heap.allocations;
    EXPECT_LE(after - before, 1 + 50 + 50 + 50 * 12) << "the groups, their names, their keys, the values";
}

TEST(AllocationTest, ACopyThatRunsOutOfMemoryLeavesBothSidesAsTheyWere)
{
    const IniFile before = MakeMixedDocument(OldValue);
    const IniFile change = MakeMixedDocument(NewValue);
    FailEachAllocation(before, change, [&before, &change](IniFile& ini) {
        try
        {
            ini = change;
        }
        catch (const std::bad_alloc&)
        {
            EXPECT_TRUE(ini == before);
            throw;
        }
        EXPECT_TRUE(ini == change);
    });
}

TEST(AllocationTest, AMergeThatRunsOutOfMemoryLeavesAValidDocument)
{
    const IniFile change = MakeMixedDocument(NewValue);
    const auto merge = [&change](IniFile& ini) { ini.MergeSettings(change); };
    FailEachAllocation(MakeMixedDocument(OldValue), change, merge);
    FailEachAllocation(FromText("[many]\n[other]\nk=1\n"), change, merge);
    FailEachAllocation(IniFile(), change, merge);
}

TEST(AllocationTest, ALoadThatRunsOutOfMemoryLeavesAValidDocument)
{
    Logger::GetLogger("IniFile");  // made here and kept, which is no leak
    const IniFile change = MakeMixedDocument(NewValue);
    std::ostringstream out;
    change.SaveToStream(out);
    const std::string text = out.str() + "[few]\n\"c\"=\"" + NewValue + "\"\n";
    const auto load = [&text](IniFile& ini) { ini.LoadFromString(text); };
    FailEachAllocation(MakeMixedDocument(OldValue), change, load);
    FailEachAllocation(IniFile(), change, load);
}

TEST(AllocationTest, ATextThatRunsOutOfMemoryIsNotCutUnnoticed)
{
    const IniFile document = MakeDocument(MakeBareMap(50, 12));
    std::ostringstream whole;
    document.SaveToStream(whole);
    bool hasFailed = true;
    for (long long allocation = 0; hasFailed; ++allocation)
    {
        std::string text;
        heap.failAfter = allocation;
        try
        {
            stl::TextStream out;
            document.SaveToStream(out);
            text = std::move(out).str();
        }
        catch (const std::bad_alloc&)
        {
        }
        hasFailed = heap.failAfter < 0;
        heap.failAfter = -1;
        ASSERT_TRUE(text == (hasFailed ? std::string() : whole.str())) << "allocation " << allocation;
    }
}

TEST(AllocationTest, AMessageThatRunsOutOfMemoryEndsNothingButItself)
{
    const Logger* const pLogger = Logger::GetLogger("AllocationTest");
    const std::string value(1000, 'x');
    Logger::ClearAppenders();
    heap.failAfter = 0;
    EXPECT_NO_THROW(pLogger->Error("a value that fits no short text: %s", value.c_str()));
    const bool hasFailed = heap.failAfter < 0;
    heap.failAfter = -1;
    EXPECT_TRUE(hasFailed);
}

TEST(AllocationTest, SettingAValueWithoutMemoryLeavesTheOldOneOrNone)
{
    const std::string group = "a group that fits no short string";
    const std::string key = "a key that fits no short string";
    IniFile before;
    before.SetValue(group, "other", "1");
    IniFile change;
    change.SetValue(group, key, NewValue);
    const auto set = [&](IniFile& ini) { ini.SetValue(group, key, NewValue); };
    FailEachAllocation(before, change, set);
    FailEachAllocation(IniFile(), change, set);
    before.SetValue(group, key, OldValue);
    FailEachAllocation(before, change, set);
    FailEachAllocation(IniFile(before), change, set);
}

}  // namespace korlo::core
