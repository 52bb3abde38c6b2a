// What whole-document operations cost as a document grows.

#include <algorithm>
#include <chrono>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "korlo/core/IniFile.h"

namespace korlo::core
{
namespace
{

IniFile FromText(const std::string& text)
{
    IniFile ini;
    ini.LoadFromString(text);
    return ini;
}

/// The keys 0 to count-1 of one group, as text in random order.
std::string RandomOrderText(int count)
{
    std::vector<int> keys(static_cast<std::size_t>(count));
    std::generate(keys.begin(), keys.end(), [next = 0]() mutable { return next++; });
    std::shuffle(keys.begin(), keys.end(), std::mt19937(1));
    std::string text = "[group]\n";
    for (const int key : keys)
    {
        text += "key" + std::to_string(key) + "=value\n";
    }
    return text;
}

/// The seconds that one load, one merge into other content, one comparison and one copy of such a group take.
double TimeOfWholeDocumentWork(int count)
{
    const std::string text = RandomOrderText(count);
    const auto start = std::chrono::steady_clock::now();
    const IniFile loaded = FromText(text);
    IniFile merged = FromText("[group]\nother=1\n");
    merged.MergeSettings(loaded);
    IniFile loadedOver = FromText("[group]\nother=1\n");
    loadedOver.LoadFromString(text);
    const IniFile copied = merged;
    EXPECT_EQ(copied, merged);
    EXPECT_EQ(loadedOver, merged);
    EXPECT_TRUE(merged.ContainsSettings(loaded));
    EXPECT_EQ(merged["group"].size(), static_cast<std::size_t>(count) + 1);
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

}  // namespace

TEST(IniFileGrowthTest, WorkOnAHugeGroupInRandomOrderGrowsAboutAsItsSize)
{
    double ratio = 1e9;
    for (int attempt = 0; attempt < 3 && ratio >= 40; ++attempt)  // another process may have had the machine
    {
        ratio = TimeOfWholeDocumentWork(200000) / TimeOfWholeDocumentWork(20000);
    }
    EXPECT_LT(ratio, 40) << "ten times the keys; a quadratic cost would be a hundred";
}

}  // namespace korlo::core
