#include "core/IniParser.h"

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace korlo::core
{
namespace
{

using ::testing::ElementsAre;

/// Keeps what is found, as text and as the views themselves.
class RecordingSink : public IIniSink
{
public:
    void OnGroup(std::string_view name) override { Add('[' + std::string(name) + ']', {name}); }

    void OnValue(std::string_view key, std::string_view value) override
    {
        Add(std::string(key) + '=' + std::string(value), {key, value});
    }

    void OnBadLine(std::size_t number, const char* reason) override
    {
        Add(std::to_string(number) + ": " + std::string(reason), {});
    }

    std::vector<std::string> events;
    std::vector<std::string_view> views;

private:
    void Add(const std::string& event, std::initializer_list<std::string_view> seen)
    {
        events.push_back(event);
        views.insert(views.end(), seen);
    }
};

bool LiesWithin(std::string_view part, std::string_view whole)
{
    const std::less<const char*> before;
    return !before(part.data(), whole.data()) && !before(whole.data() + whole.size(), part.data() + part.size());
}

}  // namespace

TEST(IniParserTest, HandsOnWhatItFindsInTheOrderOfTheText)
{
    RecordingSink sink;
    IniParser("[b]\nz=1\nbad\na=2\n# c\n[a]\nz=1\nz=2", sink).Run();
    EXPECT_THAT(sink.events, ElementsAre("[b]", "z=1", "3: it is neither a [group] nor a key=value line", "a=2", "[a]",
                                         "z=1", "z=2"));
}

TEST(IniParserTest, FindsNothingInNoText)
{
    RecordingSink sink;
    IniParser(std::string_view(), sink).Run();
    IniParser("", sink).Run();
    EXPECT_TRUE(sink.events.empty());
}

TEST(IniParserTest, NoValueComesBeforeTheFirstReadableGroup)
{
    RecordingSink sink;
    IniParser("a=1\n[open\nb=2\n", sink).Run();
    EXPECT_THAT(sink.events,
                ElementsAre("1: it stands under no readable [group] line", "2: the group name has no closing ']'",
                            "3: it stands under no readable [group] line"));
}

TEST(IniParserTest, TokensWithoutAnEscapeAreNotCopied)
{
    const std::string text = "[ group ]\r\n key = value \n\"quoted key\"=\"quoted value\"\n[\"quoted\"]\nk=\n";
    RecordingSink sink;
    IniParser(text, sink).Run();
    EXPECT_THAT(sink.views, ElementsAre("group", "key", "value", "quoted key", "quoted value", "quoted", "k", ""));
    for (const std::string_view view : sink.views)
    {
        EXPECT_TRUE(LiesWithin(view, text)) << view;
    }
}

TEST(IniParserTest, TheViewsOfEscapedTokensLiveAsLongAsTheParser)
{
    std::string text;
    for (int i = 0; i < 300; ++i)
    {
        text += "[\"\\x41" + std::to_string(i) + "\"]\n";
    }
    RecordingSink sink;
    IniParser parser(text, sink);
    parser.Run();
    ASSERT_EQ(sink.views.size(), 300u);
    for (std::size_t i = 0; i < sink.views.size(); ++i)
    {
        EXPECT_EQ(sink.views[i], 'A' + std::to_string(i));
    }
}

TEST(IniParserTest, ReadsNoByteBehindAnyPrefixOfAText)
{
    const std::string text = "\xEF\xBB\xBF# c\r\n[\"a\\x41\"]\r\n\"k\\n\" = \"v\\\\\"\nplain = text\n[b]\n";
    for (std::size_t length = 0; length <= text.size(); ++length)
    {
        const std::vector<char> exact(text.begin(), text.begin() + static_cast<std::ptrdiff_t>(length));
        RecordingSink sink;
        IniParser(std::string_view(exact.data(), exact.size()), sink).Run();
        EXPECT_LE(sink.events.size(), 4u);
    }
}

}  // namespace korlo::core
