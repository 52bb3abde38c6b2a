#include "korlo/core/SortedBlock.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <functional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

namespace korlo::core
{
namespace
{

using Block = SortedBlock<std::string>;

/// "00000", "00002", ...: so that there is a name between any two.
std::string EvenName(std::size_t index)
{
    const std::string digits = std::to_string(index * 2);
    return std::string(5 - digits.size(), '0') + digits;
}

std::string OddName(std::size_t index)
{
    const std::string digits = std::to_string(index * 2 + 1);
    return std::string(5 - digits.size(), '0') + digits;
}

Block MakeBlock(const std::set<std::string>& names)
{
    Block block(names.size());
    for (const std::string& name : names)
    {
        block.Append(name, name + " value");
    }
    block.Seal();
    return block;
}

Block MakeEvenBlock(std::size_t size)
{
    std::set<std::string> names;
    for (std::size_t i = 0; i < size; ++i)
    {
        names.insert(EvenName(i));
    }
    return MakeBlock(names);
}

// Around the least block with an index, around the words of the living, and the fullest and emptiest indexes.
constexpr std::size_t Sizes[] = {1, 2, 3, 31, 32, 33, 48, 49, 63, 64, 65, 96, 97, 128, 768, 769, 3000, 3072, 3073};

/// Where the index of a block with that many slots looks first.
std::uint32_t FirstSlotOf(std::string_view name, std::uint32_t slots)
{
    const std::uint32_t hash = static_cast<std::uint32_t>(std::hash<std::string_view>{}(name)) * 0x9E3779B1u;
    return (hash ^ (hash >> 15)) & (slots - 1);
}

/// Names that all begin their search within a few neighbouring slots.
std::set<std::string> CollidingNames(std::size_t count, std::uint32_t slots)
{
    std::set<std::string> names;
    for (std::size_t i = 0; names.size() < count; ++i)
    {
        const std::string name = std::to_string(i) + "n";
        if (FirstSlotOf(name, slots) < 16)
        {
            names.insert(name);
        }
    }
    return names;
}

/// The least time of several runs that looks every name up.
double TimeOfLookups(const Block& block, const std::set<std::string>& names)
{
    double least = 1e9;
    for (int run = 0; run < 7; ++run)
    {
        const auto start = std::chrono::steady_clock::now();
        std::size_t found = 0;
        for (const std::string& name : names)
        {
            found += block.Find(name) != Block::npos ? 1u : 0u;
        }
        EXPECT_EQ(found, names.size());
        least = std::min(least, std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
    }
    return least;
}

}  // namespace

TEST(SortedBlockTest, AnEmptyBlockFindsNothing)
{
    Block block;
    block.Seal();
    EXPECT_EQ(block.Used(), 0u);
    EXPECT_EQ(block.Live(), 0u);
    EXPECT_EQ(block.Find("a"), Block::npos);
    EXPECT_EQ(block.LowerBound("a"), 0u);
    EXPECT_EQ(block.NextLive(0), Block::npos);
    EXPECT_EQ(block.PreviousLive(0), Block::npos);
    EXPECT_EQ(Block(0).Find(""), Block::npos);
}

TEST(SortedBlockTest, FindsEveryKeyAndNoOtherInBlocksOfAnySize)
{
    for (const std::size_t size : Sizes)
    {
        SCOPED_TRACE(size);
        const Block block = MakeEvenBlock(size);
        ASSERT_EQ(block.Used(), size);
        for (std::uint32_t i = 0; i < size; ++i)
        {
            ASSERT_EQ(block.Find(EvenName(i)), i);
            ASSERT_EQ(block.At(i).second, EvenName(i) + " value");
            ASSERT_EQ(block.Find(OddName(i)), Block::npos);
            ASSERT_EQ(block.LowerBound(EvenName(i)), i);
            ASSERT_EQ(block.LowerBound(OddName(i)), i + 1);
        }
        EXPECT_EQ(block.LowerBound(""), 0u);
        EXPECT_EQ(block.Find(""), Block::npos);
    }
}

TEST(SortedBlockTest, FindsAnEmptyKeyAndKeysWithZeroBytes)
{
    const std::string zero(1, '\0');
    const Block block = MakeBlock({"", zero, zero + zero, "a", "a" + zero, "\xFF"});
    EXPECT_EQ(block.Find(""), 0u);
    EXPECT_EQ(block.Find(zero), 1u);
    EXPECT_EQ(block.Find("a" + zero), 4u);
    EXPECT_EQ(block.Find("\xFF"), 5u) << "bytes compare as unsigned";
}

TEST(SortedBlockTest, AnErasedElementKeepsItsPlaceButNotItsValue)
{
    for (const std::size_t size : {std::size_t{3}, std::size_t{40}})
    {
        Block block = MakeEvenBlock(size);
        block.Erase(1);
        EXPECT_EQ(block.Live(), size - 1);
        EXPECT_EQ(block.Used(), size);
        EXPECT_FALSE(block.IsLive(1));
        EXPECT_EQ(block.Find(EvenName(1)), 1u);
        EXPECT_EQ(block.At(1).second, "");

        block.At(1).second = "new";
        block.Revive(1);
        EXPECT_TRUE(block.IsLive(1));
        EXPECT_EQ(block.Live(), size);
    }
}

TEST(SortedBlockTest, WalksOverErasedElementsInBothDirections)
{
    constexpr std::uint32_t size = 200;
    Block block = MakeEvenBlock(size);
    std::set<std::uint32_t> living = {0, 31, 32, 63, 64, 65, 190, 199};
    for (std::uint32_t i = 0; i < size; ++i)
    {
        if (living.count(i) == 0)
        {
            block.Erase(i);
        }
    }
    for (std::uint32_t i = 0; i <= size; ++i)
    {
        SCOPED_TRACE(i);
        const auto next = living.lower_bound(i);
        EXPECT_EQ(block.NextLive(i), next == living.end() ? Block::npos : *next);
        EXPECT_EQ(block.PreviousLive(i), next == living.begin() ? Block::npos : *std::prev(next));
    }
}

TEST(SortedBlockTest, ABlockWithRoomToSpareHoldsWhatWasAppended)
{
    Block block(100);
    block.Append("a", "1");
    block.Append("b", "2");
    block.Seal();
    EXPECT_EQ(block.Used(), 2u);
    EXPECT_EQ(block.Find("b"), 1u);
    EXPECT_EQ(block.Find("c"), Block::npos);
    EXPECT_EQ(block.NextLive(2), Block::npos);
    EXPECT_EQ(block.PreviousLive(2), 1u);
}

TEST(SortedBlockTest, AMoveTakesTheElementsAndLeavesAnEmptyBlock)
{
    Block block = MakeEvenBlock(50);
    const std::string* const pValue = &block.At(7).second;
    Block moved(std::move(block));
    EXPECT_EQ(&moved.At(7).second, pValue);
    EXPECT_EQ(block.Used(), 0u);  // NOLINT: the moved-from state is promised

    Block assigned;
    assigned = std::move(moved);
    EXPECT_EQ(&assigned.At(7).second, pValue);
}

TEST(SortedBlockTest, RefusesMoreElementsThanAPositionCanCount)
{
    EXPECT_THROW(Block(std::size_t{0xFFFFFFFFu}), std::length_error);
    EXPECT_THROW(Block(std::size_t{0xFFFFFFFFu} / 4), std::length_error);
}

TEST(SortedBlockTest, FindsKeysThatWereChosenToCollide)
{
    const std::set<std::string> names = CollidingNames(700, 1024);
    const Block block = MakeBlock(names);
    std::uint32_t position = 0;
    for (const std::string& name : names)
    {
        ASSERT_EQ(block.Find(name), position++);
    }
    for (const std::string& name : CollidingNames(1000, 1024))
    {
        ASSERT_EQ(block.Find(name) != Block::npos, names.count(name) == 1);
    }
}

TEST(SortedBlockTest, KeysThatWereChosenToCollideAreFoundAboutAsFastAsOthers)
{
    constexpr std::size_t count = 4000;  // under an emulator, twice as many take four times as long to find
    const std::set<std::string> colliding = CollidingNames(count, 8192);
    std::set<std::string> ordinary;
    for (std::size_t i = 0; i < count; ++i)
    {
        ordinary.insert(std::to_string(i * 1000) + "n");
    }
    const Block ordinaryBlock = MakeBlock(ordinary);
    const Block collidingBlock = MakeBlock(colliding);
    double ratio = 1e9;
    for (int attempt = 0; attempt < 5 && ratio >= 10; ++attempt)  // another process may have had the machine
    {
        ratio = TimeOfLookups(collidingBlock, colliding) / TimeOfLookups(ordinaryBlock, ordinary);
    }
    EXPECT_LT(ratio, 10) << "a walk over all that collide takes over 25 times as long";
}

}  // namespace korlo::core
