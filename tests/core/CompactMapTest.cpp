#include "korlo/core/CompactMap.h"

#include <algorithm>
#include <iterator>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace korlo::core
{
namespace
{

using Map = CompactMap<std::string>;
using Nested = CompactMap<Map>;

static_assert(std::bidirectional_iterator<Map::iterator>);
static_assert(std::bidirectional_iterator<Map::const_iterator>);
static_assert(std::is_convertible_v<Map::iterator, Map::const_iterator>);
static_assert(!std::is_convertible_v<Map::const_iterator, Map::iterator>);
static_assert(std::is_nothrow_move_constructible_v<Nested> && std::is_nothrow_move_assignable_v<Nested>);
static_assert(std::is_same_v<decltype(*std::declval<Map::iterator>()), std::pair<const std::string, std::string>&>);

/// A map of "a", "c", ... in its block and "b", "d", ... beside it.
Map MakeMixed()
{
    Map::Builder builder(3);
    builder.Append("a", "1");
    builder.Append("c", "3");
    builder.Append("e", "5");
    Map map = std::move(builder).Build();
    map["b"] = "2";
    map["d"] = "4";
    map["f"] = "6";
    return map;
}

template <typename AnyMap>
std::vector<std::string> KeysOf(const AnyMap& map)
{
    std::vector<std::string> keys;
    for (const auto& [key, value] : map)
    {
        keys.push_back(key);
    }
    return keys;
}

}  // namespace

TEST(CompactMapTest, TheExampleOfTheBuilderMakesAMap)
{
    CompactMap<std::string>::Builder builder(2);
    builder.Append("a", "1");
    builder.Append("b", "2");
    const CompactMap<std::string> map = std::move(builder).Build();
    EXPECT_EQ(map, (Map{{"a", "1"}, {"b", "2"}}));
}

TEST(CompactMapTest, ABuilderWithoutElementsMakesAnEmptyMap)
{
    EXPECT_TRUE(Map::Builder(0).Build().empty());
    EXPECT_TRUE(Map::Builder(9).Build().empty());
    EXPECT_EQ(Map::Builder(9).Build().begin(), Map().end());
}

TEST(CompactMapTest, OfEqualKeysTheFirstCounts)
{
    EXPECT_EQ((Map{{"a", "1"}, {"a", "2"}}), (Map{{"a", "1"}}));
    const std::vector<std::pair<const std::string, std::string>> pairs = {{"b", "1"}, {"a", "2"}, {"b", "3"}};
    EXPECT_EQ(Map(pairs.begin(), pairs.end()), (Map{{"a", "2"}, {"b", "1"}}));
}

TEST(CompactMapTest, WalksBlockAndAdditionsInOneOrder)
{
    EXPECT_EQ(KeysOf(MakeMixed()), (std::vector<std::string>{"a", "b", "c", "d", "e", "f"}));
}

TEST(CompactMapTest, TheContentAloneCountsInAComparison)
{
    const Map mixed = MakeMixed();
    const Map copied = mixed;
    Map other = copied;
    EXPECT_EQ(mixed, copied);
    other["f"] = "7";
    EXPECT_NE(mixed, other);
    other.erase("f");
    EXPECT_NE(mixed, other);
}

TEST(CompactMapTest, CopiesShareNothing)
{
    const Map original = MakeMixed();
    Map copy = original;
    copy["a"] = "changed";
    copy.erase("b");
    EXPECT_EQ(original, MakeMixed());
}

TEST(CompactMapTest, AssigningAMapToItselfChangesNothing)
{
    Map map = MakeMixed();
    const Map& same = map;
    map = same;
    EXPECT_EQ(map, MakeMixed());
    Map& self = map;
    map = std::move(self);
    EXPECT_EQ(map, MakeMixed());
}

TEST(CompactMapTest, AMoveLeavesAnEmptyMapAndTheReferencesGoAlong)
{
    Map map = MakeMixed();
    const std::string& inBlock = map.at("a");
    const std::string& beside = map.at("b");
    Map moved = std::move(map);
    EXPECT_TRUE(map.empty());  // NOLINT: the moved-from state is promised
    EXPECT_EQ(&moved.at("a"), &inBlock);
    EXPECT_EQ(&moved.at("b"), &beside);
    map["x"] = "1";
    EXPECT_EQ(KeysOf(map), std::vector<std::string>{"x"});
}

TEST(CompactMapTest, AMoveAssignmentDropsTheOldContentAtOnce)
{
    Map source = MakeMixed();
    Map target{{"old", "1"}};
    target = std::move(source);
    EXPECT_EQ(target, MakeMixed());
    EXPECT_TRUE(source.empty());  // NOLINT: the moved-from state is promised
}

TEST(CompactMapTest, AKeyThatIsErasedAndAddedAgainBeginsWithAnEmptyValue)
{
    Map map = Map(MakeMixed());
    map.erase("a");
    EXPECT_EQ(map["a"], "");
    EXPECT_EQ(map.size(), 6u);
    map.erase("b");
    EXPECT_TRUE(map.try_emplace("b", "new").second);
    EXPECT_EQ(map.at("b"), "new");
}

TEST(CompactMapTest, AMapWhoseElementsWereAllErasedIsAsNew)
{
    Map map = MakeMixed();
    while (!map.empty())
    {
        map.erase(map.begin());
    }
    EXPECT_EQ(map.begin(), map.end());
    EXPECT_EQ(map.find("a"), map.end());
    map["c"] = "3";
    EXPECT_EQ(map, (Map{{"c", "3"}}));
}

TEST(CompactMapTest, AnElementCanBeErasedByItsOwnKey)
{
    Map map = MakeMixed();
    EXPECT_EQ(map.erase(map.find("a")->first), 1u);
    EXPECT_EQ(map.erase(map.find("b")->first), 1u);
    EXPECT_EQ(KeysOf(map), (std::vector<std::string>{"c", "d", "e", "f"}));
}

TEST(CompactMapTest, TryEmplaceKeepsTheValueOfAKeyThatIsThereAndItsArgument)
{
    Map map = MakeMixed();
    std::string value = "a value that is too long to be copied by accident";
    EXPECT_FALSE(map.try_emplace("a", std::move(value)).second);
    EXPECT_FALSE(map.try_emplace("b", std::move(value)).second);
    EXPECT_EQ(value, "a value that is too long to be copied by accident");  // NOLINT: it was not taken
    EXPECT_EQ(map, MakeMixed());
}

TEST(CompactMapTest, InsertOrAssignMovesAValueThatItTakes)
{
    Nested map;
    Map values = MakeMixed();
    const std::string* const pValue = values.Lookup("a");
    map.insert_or_assign("group", std::move(values));
    EXPECT_EQ(map.at("group").Lookup("a"), pValue);
    map.insert_or_assign("group", Map{{"z", "26"}});
    EXPECT_EQ(map.at("group"), (Map{{"z", "26"}}));
}

TEST(CompactMapTest, AtThrowsForAKeyThatIsNotThere)
{
    Map map = MakeMixed();
    EXPECT_THROW(map.at("z"), std::out_of_range);
    EXPECT_THROW(Map().at(""), std::out_of_range);
    map.at("f") = "changed";
    EXPECT_EQ(*map.Lookup("f"), "changed");
}

TEST(CompactMapTest, FillsThroughAnInserter)
{
    const Map mixed = MakeMixed();
    Map map;
    std::copy(mixed.begin(), mixed.end(), std::inserter(map, map.end()));
    EXPECT_EQ(map, mixed);
}

TEST(CompactMapTest, IteratorsOfBothKindsCompare)
{
    Map map = MakeMixed();
    const Map& same = map;
    EXPECT_TRUE(map.begin() == same.begin());
    EXPECT_TRUE(same.begin() == map.begin());
    EXPECT_TRUE(map.find("nothing") == same.end());
    EXPECT_TRUE(map.begin() != same.end());
    Map::const_iterator element = map.find("b");
    EXPECT_EQ((element++)->first, "b");
    EXPECT_EQ((element--)->first, "c");
    EXPECT_EQ(element->first, "b");
}

TEST(CompactMapTest, AnErasedRangeLeavesItsNeighbours)
{
    Map map = MakeMixed();
    const auto after = map.erase(map.find("b"), map.find("e"));
    EXPECT_EQ(after->first, "e");
    EXPECT_EQ(KeysOf(map), (std::vector<std::string>{"a", "e", "f"}));
    EXPECT_EQ(map.erase(map.begin(), map.end()), map.end());
    EXPECT_TRUE(map.empty());
}

}  // namespace korlo::core
