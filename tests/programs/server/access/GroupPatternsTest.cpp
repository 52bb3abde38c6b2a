// The rules of coverage and of meeting, against what they mean: every name that is matched, one by one.

#include "access/GroupPatterns.h"

#include <algorithm>
#include <chrono>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "korlo/core/StringUtil.h"

namespace korlo::daemon
{
namespace
{

using core::StringUtil;

/// Every text over the letters, from the empty one to those of `longest` characters.
std::vector<std::string> TextsOver(std::string_view letters, std::size_t longest)
{
    std::vector<std::string> texts = {""};
    std::size_t begin = 0;
    for (std::size_t length = 1; length <= longest; ++length)
    {
        const std::size_t end = texts.size();
        for (; begin < end; ++begin)
        {
            for (const char letter : letters)
            {
                texts.push_back(texts[begin] + letter);
            }
        }
    }
    return texts;
}

/// For each pattern, which of the names it matches, as the store matches them.
std::vector<std::vector<bool>> MatchesOf(const std::vector<std::string>& patterns,
                                         const std::vector<std::string>& names)
{
    std::vector<std::vector<bool>> matches;
    for (const std::string& pattern : patterns)
    {
        std::vector<bool>& row = matches.emplace_back();
        for (const std::string& name : names)
        {
            // Without an asterisk it is a name, and matches itself.
            row.push_back(StringUtil::MatchesPattern(pattern, name));
        }
    }
    return matches;
}

bool IsSubset(const std::vector<bool>& part, const std::vector<bool>& whole)
{
    for (std::size_t i = 0; i < part.size(); ++i)
    {
        if (part[i] && !whole[i])
        {
            return false;
        }
    }
    return true;
}

bool HaveOneInCommon(const std::vector<bool>& left, const std::vector<bool>& right)
{
    for (std::size_t i = 0; i < left.size(); ++i)
    {
        if (left[i] && right[i])
        {
            return true;
        }
    }
    return false;
}

/// Compares both decisions, for every pair of patterns, with the names that they match. The names must be long enough
/// to hold a witness: a text of the length of one pattern for coverage, of both together for meeting.
void CompareWithTheNames(const std::vector<std::string>& patterns, const std::vector<std::string>& names)
{
    const std::vector<std::vector<bool>> matches = MatchesOf(patterns, names);
    for (std::size_t left = 0; left < patterns.size(); ++left)
    {
        for (std::size_t right = 0; right < patterns.size(); ++right)
        {
            ASSERT_EQ(Covers(patterns[left], patterns[right]), IsSubset(matches[right], matches[left]))
                << '\'' << patterns[left] << "' covers '" << patterns[right] << '\'';
            ASSERT_EQ(Meet(patterns[left], patterns[right]), HaveOneInCommon(matches[left], matches[right]))
                << '\'' << patterns[left] << "' meets '" << patterns[right] << '\'';
        }
    }
}

}  // namespace

TEST(GroupPatternsTest, BothDecisionsAreExactForAllShortPatterns)
{
    CompareWithTheNames(TextsOver("ab*", 4), TextsOver("ab*", 6));
}

TEST(GroupPatternsTest, BothDecisionsAreExactWhereNoNameHoldsAnAsterisk)
{
    // 'c' stands for every character that no pattern of these names.
    CompareWithTheNames(TextsOver("ab*", 4), TextsOver("abc", 6));
}

TEST(GroupPatternsTest, BothDecisionsAreExactForLongerPatternsOfOneLetter)
{
    CompareWithTheNames(TextsOver("a*", 5), TextsOver("ac", 10));
}

TEST(GroupPatternsTest, TwoPatternsCoverNothingThatNeitherOfThemCovers)
{
    const std::vector<std::string> patterns = TextsOver("ab*", 3);
    const std::vector<std::vector<bool>> matches = MatchesOf(patterns, TextsOver("ab*", 4));
    for (std::size_t first = 0; first < patterns.size(); ++first)
    {
        for (std::size_t second = 0; second < first; ++second)
        {
            std::vector<bool> both = matches[first];
            std::transform(both.begin(), both.end(), matches[second].begin(), both.begin(), std::logical_or<>());
            for (std::size_t entry = 0; entry < patterns.size(); ++entry)
            {
                ASSERT_EQ(Covers(patterns[first], patterns[entry]) || Covers(patterns[second], patterns[entry]),
                          IsSubset(matches[entry], both))
                    << patterns[first] << ' ' << patterns[second] << ' ' << patterns[entry];
            }
        }
    }
}

TEST(GroupPatternsTest, MatchesNamesAsTheStoreDoes)
{
    const std::vector<std::string> names = TextsOver("ab*", 6);
    for (const std::string& pattern : TextsOver("ab*", 5))
    {
        for (const std::string& name : names)
        {
            ASSERT_EQ(Covers(pattern, name), StringUtil::MatchesPattern(pattern, name)) << pattern << ' ' << name;
        }
    }
}

TEST(GroupPatternsTest, ZeroBytesAreCharactersLikeOthers)
{
    const std::string name("a\0b", 3);
    EXPECT_TRUE(Covers("a*b", name));
    EXPECT_TRUE(Covers(std::string("*\0*", 3), name));
    EXPECT_FALSE(Covers(std::string("a\0", 2), name));
    EXPECT_FALSE(Meet(std::string("a\0*", 3), "ab*"));
}

TEST(GroupPatternsTest, RepeatedStarsMeanOne)
{
    for (const std::string& pattern : TextsOver("a*", 6))
    {
        const std::string simple = WithoutRepeatedStars(pattern);
        EXPECT_EQ(simple.find("**"), std::string::npos);
        EXPECT_TRUE(Covers(simple, pattern) && Covers(pattern, simple)) << pattern;
    }
}

TEST(GroupPatternsTest, LongTextsCostTheSumOfTheirLengths)
{
    // What makes matching by trial and error take the product: nearly a match at every place.
    constexpr std::size_t half = 500'000;
    const std::string pattern = '*' + std::string(half, 'a') + "b*" + std::string(half, 'a') + "b*";
    const std::string entry(4 * half, 'a');
    // Fewer pieces: a sanitizer looks at the whole rest of the text each time that one is searched for.
    constexpr std::size_t pieces = 10'000;
    std::string stars;
    for (std::size_t i = 0; i < pieces; ++i)
    {
        stars += "*a";
    }
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_FALSE(Covers(pattern, entry));
    EXPECT_FALSE(Covers(pattern, entry + '*'));
    EXPECT_TRUE(Meet(pattern, entry + '*'));
    EXPECT_TRUE(Covers(stars, std::string(pieces, 'a')));
    EXPECT_FALSE(Covers(stars, std::string(pieces - 1, 'a')));
    EXPECT_FALSE(Meet(stars, "aaab"));
    // By the product it were some minutes.
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(20));
}

}  // namespace korlo::daemon
