#include "settings/server/ChangedNames.h"

#include <string>
#include <vector>

#include <gmock/gmock.h>

#include "support/RecordingObserver.h"

namespace korlo::settings::server
{
namespace
{

using testing::ElementsAre;
using testing::IsEmpty;

/// Of "A:a,b" and "B", say.
ChangedNames Names(const std::vector<std::string>& groups)
{
    ChangedNames names;
    for (const std::string& text : groups)
    {
        const std::size_t colon = text.find(':');
        names.AddGroup(text.substr(0, colon));
        for (std::size_t begin = colon; begin != std::string::npos;)
        {
            const std::size_t end = text.find(',', begin + 1);
            names.AddKey(text.substr(begin + 1, end == std::string::npos ? end : end - begin - 1));
            begin = end;
        }
    }
    return names;
}

bool HaveCommonName(const std::vector<std::string>& left, const std::vector<std::string>& right)
{
    const bool found = ChangedNames::HaveCommonName(Names(left).GetPacked(), Names(right).GetPacked());
    EXPECT_EQ(ChangedNames::HaveCommonName(Names(right).GetPacked(), Names(left).GetPacked()), found);
    return found;
}

TEST(ChangedNamesTest, ListsGroupsAndTheirKeys)
{
    EXPECT_THAT(TextsOf(Names({"A:x,y", "B", "C:z"})), ElementsAre("[A]x", "[A]y", "[B]", "[C]z"));
}

TEST(ChangedNamesTest, IsEmptyUntilSomethingIsAdded)
{
    EXPECT_TRUE(ChangedNames().IsEmpty());
    EXPECT_THAT(TextsOf(ChangedNames()), IsEmpty());
    EXPECT_FALSE(Names({""}).IsEmpty());
}

TEST(ChangedNamesTest, CarriesNamesOfAnyBytes)
{
    const std::string odd("\0\n]=\x80\xff", 6);
    ChangedNames names;
    names.AddGroup(odd);
    names.AddKey(odd);
    names.AddKey("");
    EXPECT_THAT(TextsOf(names), ElementsAre('[' + odd + ']' + odd, '[' + odd + ']'));
}

TEST(ChangedNamesTest, CountsTheKeysThatDoNotFit)
{
    ChangedNames names;
    names.AddGroup("G");
    for (int i = 0; i < 1000; ++i)
    {
        names.AddKey("key" + std::to_string(100 + i));
    }
    const std::size_t listed = TextsOf(names).size() - 1;
    EXPECT_EQ(listed, ChangedNames::MostBytes / std::string("[G]key100").size());
    EXPECT_EQ(names.GetMore(), 1000 - listed);
    EXPECT_EQ(names.GetMoreGroups(), 0u);
}

TEST(ChangedNamesTest, CountsAGroupThatDoesNotFitOnceWithItsKeys)
{
    const std::string million(1'000'000, 'g');
    ChangedNames names;
    names.AddGroup(million);
    EXPECT_EQ(names.GetMore(), 1u);
    names.AddKey("a");
    EXPECT_EQ(names.GetMore(), 1u);
    names.AddKey("b");
    EXPECT_EQ(names.GetMore(), 2u);
    EXPECT_EQ(names.GetMoreGroups(), 1u);
}

TEST(ChangedNamesTest, AShorterNameBehindALongOneStillFits)
{
    const std::string million(1'000'000, 'x');
    EXPECT_THAT(TextsOf(Names({"A:" + million + ",b", million, "z:k"})), ElementsAre("[A]b", "[z]k", "+2"));
}

TEST(ChangedNamesTest, StaysWithinItsBoundsWhateverIsAdded)
{
    ChangedNames names;
    for (int i = 0; i < 2000; ++i)
    {
        names.AddGroup(std::string(static_cast<std::size_t>(i % 1100), 'g'));
        names.AddKey(std::string(static_cast<std::size_t>(i % 7), 'k'));
    }
    std::size_t groupBytes = 0;
    std::size_t keyBytes = 0;
    std::size_t group = 0;
    ChangedNames::Visit(
        names.GetPacked(), [&](std::string_view name) { groupBytes += group = name.size(); },
        [&](std::string_view name) { keyBytes += group + name.size() + 2; });
    EXPECT_LE(groupBytes, ChangedNames::MostBytes);
    EXPECT_LE(keyBytes, ChangedNames::MostBytes);
    EXPECT_LE(names.GetPacked().size(), 4 * ChangedNames::MostBytes);
}

TEST(ChangedNamesTest, TheDigestTellsListsApartByNamesThatDoNotFit)
{
    const std::string million(1'000'000, 'x');
    EXPECT_EQ(Names({"A:" + million}).GetDigest(), Names({"A:" + million}).GetDigest());
    EXPECT_NE(Names({"A:" + million}).GetDigest(), Names({"A:" + million + 'y'}).GetDigest());
    EXPECT_NE(Names({"A:b"}).GetDigest(), Names({"A", "b"}).GetDigest());
    EXPECT_NE(Names({"A:b,c"}).GetDigest(), Names({"A:c,b"}).GetDigest());
}

TEST(ChangedNamesTest, FindsTheKeyThatTwoListsName)
{
    EXPECT_TRUE(HaveCommonName({"A:x", "B:y"}, {"B:x,y,z"}));
    EXPECT_FALSE(HaveCommonName({"A:x", "B:y"}, {"A:y", "B:x,z", "C:x"}));
    EXPECT_FALSE(HaveCommonName({"A:x"}, {}));
}

TEST(ChangedNamesTest, AGroupWithoutKeysIsAboutAllItsKeys)
{
    EXPECT_TRUE(HaveCommonName({"A"}, {"A:x"}));
    EXPECT_TRUE(HaveCommonName({"A"}, {"A"}));
    EXPECT_FALSE(HaveCommonName({"A"}, {"B:x"}));
}

TEST(ChangedNamesTest, FindsTheGroupThatTwoListsName)
{
    EXPECT_TRUE(ChangedNames::HaveCommonGroup(Names({"A:x", "C:y"}).GetPacked(), Names({"B:x", "C:z"}).GetPacked()));
    EXPECT_FALSE(ChangedNames::HaveCommonGroup(Names({"A:x", "C"}).GetPacked(), Names({"B:x"}).GetPacked()));
}

}  // namespace
}  // namespace korlo::settings::server
