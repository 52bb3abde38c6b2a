#include "korlo/core/StringUtil.h"

#include <chrono>
#include <climits>
#include <random>

#include <gtest/gtest.h>

namespace korlo::core
{
namespace
{

using Pieces = std::vector<std::string>;

/// The definition of matching, word for word; exponential, so for short texts only.
bool MatchesByDefinition(const std::string& pattern, const std::string& text)
{
    if (pattern.empty())
    {
        return text.empty();
    }
    if (pattern[0] != '*')
    {
        return !text.empty() && pattern[0] == text[0] && MatchesByDefinition(pattern.substr(1), text.substr(1));
    }
    for (std::size_t run = 0; run <= text.size(); ++run)
    {
        if (MatchesByDefinition(pattern.substr(1), text.substr(run)))
        {
            return true;
        }
    }
    return false;
}

std::string RandomText(std::mt19937& random, const std::string& alphabet, std::size_t maxLength)
{
    std::string text(random() % (maxLength + 1), ' ');
    for (char& character : text)
    {
        character = alphabet[random() % alphabet.size()];
    }
    return text;
}

Pieces Split(const std::string& text, const std::string& delimiters, unsigned int maxParts)
{
    Pieces pieces{"left over"};
    StringUtil::Split(pieces, text, delimiters, maxParts);
    return pieces;
}

}  // namespace

TEST(StringUtilTest, AStarStandsForAnyRunOfCharacters)
{
    const struct
    {
        const char* pattern;
        const char* text;
        bool matches;
    } rows[] = {
        {"", "", true},          {"", "a", false},         {"a", "", false},          {"*", "", true},
        {"*", "abc", true},      {"**", "", true},         {"a", "a", true},          {"a", "A", false},
        {"a*", "a", true},       {"a*", "ab", true},       {"a*", "ba", false},       {"*a", "a", true},
        {"*a", "ba", true},      {"*a", "ab", false},      {"a*b", "ab", true},       {"a*b", "axxb", true},
        {"a*b", "abx", false},   {"a*a", "a", false},      {"a*b*c", "abbc", true},   {"a*b*c", "acb", false},
        {"*ab", "aab", true},    {"*aab*", "aaab", true},  {"a?c", "abc", false},     {"[a]", "a", false},
        {"a*bc", "abcbc", true}, {"Net*fi", "Net", false}, {"*/*", "Net/Wifi", true}, {"\\*", "\\x", true},
        {"a", "aa", false},      {"aa", "a", false},       {"*a*a*", "ba", false},    {"a**b", "ab", true},
    };
    for (const auto& row : rows)
    {
        SCOPED_TRACE(std::string(row.pattern) + " on " + row.text);
        EXPECT_EQ(StringUtil::MatchesPattern(row.pattern, row.text), row.matches);
    }
}

TEST(StringUtilTest, MatchesAsTheDefinitionDoes)
{
    const unsigned int seed = std::random_device()();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    for (int i = 0; i < 20000; ++i)
    {
        const std::string pattern = RandomText(random, "ab*", 6);
        const std::string text = RandomText(random, "ab", 8);
        SCOPED_TRACE(pattern + " on " + text);
        ASSERT_EQ(StringUtil::MatchesPattern(pattern, text), MatchesByDefinition(pattern, text));
    }
}

TEST(StringUtilTest, PatternsAndTextsMayHoldZeroBytesAndAnyOther)
{
    const std::string zero(1, '\0');
    EXPECT_TRUE(StringUtil::MatchesPattern("a" + zero + "*", "a" + zero + zero + "b"));
    EXPECT_FALSE(StringUtil::MatchesPattern("a", "a" + zero));
    EXPECT_FALSE(StringUtil::MatchesPattern("a" + zero, "a"));
    EXPECT_TRUE(StringUtil::MatchesPattern("\xff*\x80", "\xff\x80"));
}

TEST(StringUtilTest, AHostilePatternDoesNotTakeForever)
{
    std::string pattern;
    for (int i = 0; i < 50; ++i)
    {
        pattern += "a*";
    }
    EXPECT_FALSE(StringUtil::MatchesPattern(pattern + "b", std::string(5000, 'a')));
}

TEST(StringUtilTest, EveryShortPatternMatchesAsTheDefinitionDoes)
{
    const auto allTexts = [](const std::string& alphabet, std::size_t maxLength) {
        Pieces texts{""};
        for (std::size_t i = 0; texts[i].size() < maxLength; ++i)
        {
            for (const char character : alphabet)
            {
                texts.push_back(texts[i] + character);
            }
        }
        return texts;
    };
    const Pieces texts = allTexts("ab", 6);
    for (const std::string& pattern : allTexts("ab*", 5))
    {
        for (const std::string& text : texts)
        {
            ASSERT_EQ(StringUtil::MatchesPattern(pattern, text), MatchesByDefinition(pattern, text))
                << pattern << " on " << text;
        }
    }
}

TEST(StringUtilTest, APatternCostsTheSumOfTheLengthsWhateverTheyHold)
{
    constexpr std::size_t half = 200'000;
    const std::string name(2 * half, 'a');
    const std::string run(half, 'a');
    const std::string patterns[] = {
        "*" + run + "b",
        "*" + run + "b*",
        "*b" + run + "*",
        "*" + run + "b" + run + "*",
        "*" + std::string(31, 'a') + "b*",
        "a*" + run + "*" + run + "*",
        "*" + run + "*" + run + "*b",
    };
    const auto begin = std::chrono::steady_clock::now();
    for (const std::string& pattern : patterns)
    {
        EXPECT_FALSE(StringUtil::MatchesPattern(pattern, name));
    }
    EXPECT_TRUE(StringUtil::MatchesPattern("*" + run + "*" + run + "*", name));
    std::string stars;
    for (std::size_t i = 0; i < half; ++i)
    {
        stars += "*a";
    }
    EXPECT_TRUE(StringUtil::MatchesPattern(stars, name));
    EXPECT_FALSE(StringUtil::MatchesPattern(stars + "*b", name));
    // Milliseconds each where the sum counts, minutes where the product does.
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(20));
}

TEST(StringUtilTest, StartsWithComparesTheWholePrefix)
{
    EXPECT_TRUE(StringUtil::StartsWith("Network/Wifi", "Network/"));
    EXPECT_TRUE(StringUtil::StartsWith("Network", "Network"));
    EXPECT_TRUE(StringUtil::StartsWith("Network", ""));
    EXPECT_TRUE(StringUtil::StartsWith("", ""));
    EXPECT_FALSE(StringUtil::StartsWith("Net", "Network"));
    EXPECT_FALSE(StringUtil::StartsWith("xNet", "Net"));
    EXPECT_FALSE(StringUtil::StartsWith(std::string("a\0b", 3), std::string("a\0c", 3)));
}

TEST(StringUtilTest, SplitKeepsEmptyPieces)
{
    EXPECT_EQ(Split("[g]k", "[]", 3), (Pieces{"", "g", "k"}));
    EXPECT_EQ(Split("[Network]", "[]", 3), (Pieces{"", "Network", ""}));
    EXPECT_EQ(Split("[]Key", "[]", 3), (Pieces{"", "", "Key"}));
    EXPECT_EQ(Split("a..b.", ".", 9), (Pieces{"a", "", "b", ""}));
    EXPECT_EQ(Split("", ".", 9), (Pieces{""}));
}

TEST(StringUtilTest, SplitGivesFewerPiecesWhereThereAreFewerDelimiters)
{
    EXPECT_EQ(Split("Network.Address", "[]", 3), (Pieces{"Network.Address"}));
    EXPECT_EQ(Split("a[b", "[]", 3), (Pieces{"a", "b"}));
    EXPECT_EQ(Split("a.b", "", 3), (Pieces{"a.b"}));
}

TEST(StringUtilTest, TheLastPieceThatIsAllowedTakesTheRest)
{
    EXPECT_EQ(Split("a.b.c", ".", 2), (Pieces{"a", "b.c"}));
    EXPECT_EQ(Split("[g]k[1]", "[]", 3), (Pieces{"", "g", "k[1]"}));
    EXPECT_EQ(Split("a.b", ".", 1), (Pieces{"a.b"}));
    EXPECT_EQ(Split("a.b", ".", 2), (Pieces{"a", "b"}));
}

TEST(StringUtilTest, SplitIntoNoPiecesGivesNone)
{
    EXPECT_EQ(Split("a.b", ".", 0), Pieces{});
}

TEST(StringUtilTest, SplitTakesZeroBytesAsCharacters)
{
    EXPECT_EQ(Split(std::string("a\0b", 3), std::string(1, '\0'), 5), (Pieces{"a", "b"}));
}

TEST(StringUtilTest, TryParseReadsWholeDecimalIntegers)
{
    const struct
    {
        const char* text;
        int value;
    } rows[] = {{"0", 0},   {"-0", 0},  {"7", 7},
                {"-7", -7}, {"007", 7}, {"2147483647", INT_MAX},
                {"42", 42}, {"-1", -1}, {"-2147483648", INT_MIN}};
    for (const auto& row : rows)
    {
        SCOPED_TRACE(row.text);
        int value = 99;
        EXPECT_TRUE(StringUtil::TryParse(row.text, value));
        EXPECT_EQ(value, row.value);
    }
}

TEST(StringUtilTest, TryParseRefusesEverythingElseAndLeavesTheOutputAlone)
{
    for (const std::string text : {"", "-", "+1", " 1", "1 ", "12abc", "1.0", "0x10", "--1", "2147483648",
                                   "-2147483649", "99999999999999999999", "\n1", "1e3"})
    {
        SCOPED_TRACE(text);
        int value = 99;
        EXPECT_FALSE(StringUtil::TryParse(text, value));
        EXPECT_EQ(value, 99);
    }
    int value = 99;
    EXPECT_FALSE(StringUtil::TryParse(std::string("1\0", 2), value));
    EXPECT_EQ(value, 99);
}

}  // namespace korlo::core
