// Lines of INI text that make no sense: each costs one warning and nothing around it.

#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "korlo/core/IniFile.h"
#include "support/LogCapture.h"
#include "support/TemporaryFolder.h"

namespace korlo::core
{
namespace
{

using ::testing::ElementsAre;
using ::testing::IsEmpty;

std::string TextOf(const IniFile& ini)
{
    std::ostringstream out;
    ini.SaveToStream(out);
    return out.str();
}

struct MalformedLine
{
    const char* line;
    const char* reason;
};

constexpr const char* Unclosed = "a quote is not closed";
constexpr const char* BadEscape = "a backslash in quotes is not followed by one of \\ \" n r t xHH";
constexpr const char* TextBehindValue = "there is text after the closing quote of the value";
constexpr const char* NoEquals = "there is no '=' after the key";

constexpr MalformedLine MalformedPairs[] = {
    {"neither", "it is neither a [group] nor a key=value line"},
    {".", "it is neither a [group] nor a key=value line"},
    {"=value", "there is no key before the '='"},
    {"  = value", "there is no key before the '='"},
    {"\"key", Unclosed},
    {"\"", Unclosed},
    {"\"key\\\"=1", Unclosed},
    {"\"key\\", Unclosed},
    {"\"key\"", NoEquals},
    {"\"key\" more=1", NoEquals},
    {"\"key\"more=1", NoEquals},
    {"k=\"open", Unclosed},
    {"k=\"", Unclosed},
    {"k=\"open\\\"", Unclosed},
    {"k=\"closed\" and more", TextBehindValue},
    {"k=\"closed\" # no comment", TextBehindValue},
    {"k=\"\"\"", TextBehindValue},
    {"k=\"\\q\"", BadEscape},
    {"k=\"\\x\"", BadEscape},
    {"k=\"\\x4\"", BadEscape},
    {"k=\"\\x4g\"", BadEscape},
    {"k=\"\\xg4\"", BadEscape},
    {"k=\"\\N\"", BadEscape},
    {"\"\\0\"=1", BadEscape},
};

constexpr MalformedLine MalformedHeaders[] = {
    {"[open", "the group name has no closing ']'"},
    {"[", "the group name has no closing ']'"},
    {"[\"open]", Unclosed},
    {"[\"open\"", "the group name has no closing ']'"},
    {"[\"\\q\"]", BadEscape},
    {"[h] more", "there is text after the group name"},
    {"[h] # no comment", "there is text after the group name"},
    {"[h]]", "there is text after the group name"},
    {"[\"h\" more]", "there is text after the group name"},
};

}  // namespace

TEST(IniBadLineTest, AMalformedLineIsSkippedWithOneWarningAndItsNeighboursStay)
{
    for (const auto& [line, reason] : MalformedPairs)
    {
        SCOPED_TRACE(line);
        LogCapture log;
        IniFile ini;
        ini.LoadFromString("[g]\nbefore=1\n" + std::string(line) + "\nbehind=2\n");
        EXPECT_THAT(log.GetMessages(), ElementsAre("4 IniFile: INI text, line 3 is skipped: " + std::string(reason)));
        EXPECT_EQ(TextOf(ini), "[g]\nbefore=1\nbehind=2\n");
    }
}

TEST(IniBadLineTest, KeysUnderAnUnreadableHeaderBelongNowhere)
{
    for (const auto& [line, reason] : MalformedHeaders)
    {
        SCOPED_TRACE(line);
        LogCapture log;
        IniFile ini;
        ini.LoadFromString("[g]\nbefore=1\n" + std::string(line) + "\nlost=2\n[h]\nbehind=3\n");
        EXPECT_THAT(log.GetMessages(),
                    ElementsAre("4 IniFile: INI text, line 3 is skipped: " + std::string(reason),
                                "4 IniFile: INI text, line 4 is skipped: it stands under no readable [group] line"));
        EXPECT_EQ(TextOf(ini), "[g]\nbefore=1\n[h]\nbehind=3\n");
    }
}

TEST(IniBadLineTest, KeysBeforeTheFirstHeaderBelongNowhere)
{
    LogCapture log;
    IniFile ini;
    ini.LoadFromString("lost=1\n# comment\n[g]\nkey=2\n");
    EXPECT_THAT(log.GetMessages(),
                ElementsAre("4 IniFile: INI text, line 1 is skipped: it stands under no readable [group] line"));
    EXPECT_EQ(TextOf(ini), "[g]\nkey=2\n");
}

TEST(IniBadLineTest, AWarningNamesTheFileWhereThereIsOne)
{
    const TemporaryFolder folder;
    const std::string path = folder.PathOf("bad.ini");
    std::ofstream(path) << "# comment\n\n[g]\r\nbad\r\nkey=1\n";
    LogCapture log;
    EXPECT_EQ(TextOf(IniFile(path.c_str())), "[g]\nkey=1\n");
    EXPECT_THAT(
        log.GetMessages(),
        ElementsAre("4 IniFile: " + path + ":4: the line is skipped: it is neither a [group] nor a key=value line"));
}

TEST(IniBadLineTest, WarningsOfAStreamNameTheLine)
{
    LogCapture log;
    std::istringstream in("[g]\nbad");
    IniFile().LoadFromStream(in);
    EXPECT_THAT(log.GetMessages(),
                ElementsAre("4 IniFile: INI text, line 2 is skipped: it is neither a [group] nor a key=value line"));
}

TEST(IniBadLineTest, ManyBadLinesAreSummedUp)
{
    const std::string hundred = [] {
        std::string text = "[g]\n";
        for (int i = 0; i < 100; ++i)
        {
            text += "bad\n";
        }
        return text;
    }();
    {
        LogCapture log;
        IniFile().LoadFromString(hundred + "key=1\n");
        EXPECT_EQ(log.GetMessages().size(), 100u);
    }
    {
        LogCapture log;
        IniFile ini;
        ini.LoadFromString(hundred + "bad\nbad\nkey=1\n");
        ASSERT_EQ(log.GetMessages().size(), 101u);
        EXPECT_EQ(log.GetMessages()[99],
                  "4 IniFile: INI text, line 101 is skipped: it is neither a [group] nor a key=value line");
        EXPECT_EQ(log.GetMessages()[100], "4 IniFile: INI text: 2 more lines are skipped");
        EXPECT_EQ(TextOf(ini), "[g]\nkey=1\n");
    }
    const TemporaryFolder folder;
    const std::string path = folder.PathOf("bad.ini");
    std::ofstream(path) << hundred << "bad\n";
    LogCapture log;
    IniFile file(path.c_str());
    ASSERT_EQ(log.GetMessages().size(), 101u);
    EXPECT_EQ(log.GetMessages()[100], "4 IniFile: " + path + ": 1 more lines are skipped");
    EXPECT_EQ(IniFile::FindBadLines(path.c_str()).size(), 101u) << "the list is whole";
}

TEST(IniBadLineTest, FindBadLinesListsWhatLoadingWouldSkip)
{
    const TemporaryFolder folder;
    const std::string path = folder.PathOf("bad.ini");
    std::string text;
    for (const auto& [line, reason] : MalformedPairs)
    {
        text += "[g]\n" + std::string(line) + "\n";
    }
    for (const auto& [line, reason] : MalformedHeaders)
    {
        text += "[g]\n" + std::string(line) + "\n";
    }
    std::ofstream(path) << text;

    LogCapture log;
    const std::vector<IniFile::BadLine> badLines = IniFile::FindBadLines(path.c_str());
    EXPECT_THAT(log.GetMessages(), IsEmpty());
    ASSERT_EQ(badLines.size(), std::size(MalformedPairs) + std::size(MalformedHeaders));
    for (std::size_t i = 0; i < badLines.size(); ++i)
    {
        EXPECT_EQ(badLines[i].number, 2 * i + 2);
        EXPECT_EQ(badLines[i].reason, i < std::size(MalformedPairs)
                                          ? MalformedPairs[i].reason
                                          : MalformedHeaders[i - std::size(MalformedPairs)].reason);
    }
}

}  // namespace korlo::core
