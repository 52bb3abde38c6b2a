#include "FindText.h"

#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace korlo::core
{
namespace
{

/// All texts of 'a' and 'b' up to a length.
std::vector<std::string> AllTexts(std::size_t maxLength)
{
    std::vector<std::string> texts{""};
    for (std::size_t i = 0; texts[i].size() < maxLength; ++i)
    {
        texts.push_back(texts[i] + 'a');
        texts.push_back(texts[i] + 'b');
    }
    return texts;
}

TEST(FindTextTest, FindsEveryShortTextInEveryOtherWhereItOccursFirst)
{
    const std::vector<std::string> texts = AllTexts(10);
    for (const std::string& wanted : AllTexts(7))
    {
        for (const std::string& text : texts)
        {
            ASSERT_TRUE(FindText(text, wanted) == text.find(wanted)) << '\'' << wanted << "' in '" << text << '\'';
            ASSERT_TRUE(wanted.empty() || FindLongText(text, wanted) == text.find(wanted))
                << '\'' << wanted << "' in '" << text << '\'';
        }
    }
}

TEST(FindTextTest, FindsLongTextsThatRepeatThemselves)
{
    const unsigned int seed = std::random_device()();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    for (int round = 0; round < 20000; ++round)
    {
        std::string period;
        for (std::size_t length = 1 + random() % 12; period.size() < length;)
        {
            period += static_cast<char>('a' + random() % 2);
        }
        std::string text;
        while (text.size() < 200)
        {
            text += random() % 8 == 0 ? std::string(1, static_cast<char>(random() % 256)) : period;
        }
        std::string wanted = text.substr(random() % 100, 1 + random() % 100);
        if (random() % 2 == 0)
        {
            wanted[random() % wanted.size()] = 'b';
        }
        ASSERT_EQ(FindText(text, wanted), text.find(wanted)) << '\'' << wanted << "' in '" << text << '\'';
        ASSERT_EQ(FindLongText(text, wanted), text.find(wanted)) << '\'' << wanted << "' in '" << text << '\'';
    }
}

}  // namespace
}  // namespace korlo::core
