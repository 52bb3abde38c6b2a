#include "saving/ChangeLog.h"

#include <random>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/Documents.h"
#include "support/LogCapture.h"

namespace korlo::daemon
{
namespace
{

using settings::server::UserLayerChange;

const std::string Content = "[A]\nk=1\n[B]\nk=1\n";

UserLayerChange Change(const settings::GroupNameCollection& removed, const std::string& merged)
{
    return {removed, Ini(merged)};
}

/// Three records, of which the last two are of both kinds.
const std::string Records[] = {
    ChangeLog::RecordOf(Change({}, "[A]\nk=2\n")),
    ChangeLog::RecordOf(Change({"B", "odd\nname"}, "[C]\nk=\"a\\nb\"\n")),
    ChangeLog::RecordOf(Change({}, "[A]\nk=3\nlong=" + std::string(200, 'x') + '\n')),
};
const std::string FirstLine = ChangeLog::FirstLineFor(ContentMark::Of(Content));

/// The layer after some of the records.
core::IniFile LayerAfter(std::size_t records)
{
    core::IniFile layer = Ini(Content);
    std::string text = FirstLine;
    for (std::size_t index = 0; index < records; ++index)
    {
        text += Records[index];
    }
    ChangeLog(text).ApplyTo(layer);
    return layer;
}

core::IniFile LayerOf(const ChangeLog& log)
{
    core::IniFile layer = Ini(Content);
    log.ApplyTo(layer);
    return layer;
}

TEST(ChangeLogTest, ReadsAsTheHeaderShowsIt)
{
    EXPECT_EQ(FirstLine, "#log 1 of 16 bytes c8d21859 35220860\n");
    EXPECT_EQ(ChangeLog::RecordOf(Change({"Network/Wifi"}, "[Audio]\nvolume=3\n")),
              "#change 40 bcc4b424\n#remove [Network/Wifi]\n[Audio]\nvolume=3\n");
}

TEST(ChangeLogTest, GivesTheLayerThatTheChangesMade)
{
    const std::string text = FirstLine + Records[0] + Records[1] + Records[2];
    const ChangeLog log(text);
    EXPECT_EQ(log.GetContent(), ContentMark::Of(Content));
    EXPECT_EQ(log.GetEnd(), ChangeLog::Whole);
    EXPECT_EQ(log.GetRecords().size(), 3u);
    EXPECT_EQ(LayerOf(log), Ini("[A]\nk=3\nlong=" + std::string(200, 'x') + "\n[C]\nk=\"a\\nb\"\n"));
}

TEST(ChangeLogTest, TellsTheLineOfEachRecord)
{
    const std::string text = FirstLine + Records[0] + Records[1] + Records[2] + "#ch";
    const ChangeLog log(text);
    EXPECT_EQ(log.GetRecords()[0].line, 2u);
    EXPECT_EQ(log.GetRecords()[1].line, 5u);
    EXPECT_EQ(log.GetRecords()[2].line, 10u);
    EXPECT_EQ(log.GetEndLine(), 14u);
    EXPECT_EQ(ChangeLog::Parts(log.GetRecords()[1].body).removedLines, 2u);
}

TEST(ChangeLogTest, AnyByteSurvivesInNamesKeysAndValues)
{
    UserLayerChange change;
    for (int byte = 0; byte < 256; ++byte)
    {
        const std::string text = std::string(1, static_cast<char>(byte)) + "#change 1 00000000\n#remove [x]\n";
        change.removed.insert(text);
        change.merged[text][text] = text;
        change.merged["-" + text];
    }
    core::IniFile expected = change.merged;
    expected["stays"]["k"] = "1";
    core::IniFile layer = expected;
    layer[*change.removed.begin()]["goes"] = "1";
    layer["\x01#change 1 00000000\n#remove [x]\n"]["goes"] = "1";
    const std::string text = FirstLine + ChangeLog::RecordOf(change);
    const ChangeLog log(text);
    ASSERT_EQ(log.GetRecords().size(), 1u);
    EXPECT_EQ(ChangeLog::Parts(log.GetRecords()[0].body).removed, change.removed);
    log.ApplyTo(layer);
    EXPECT_EQ(layer, expected);
}

TEST(ChangeLogTest, IsIniTextWhoseLinesAllMakeSense)
{
    LogCapture log;
    Ini(FirstLine + Records[0] + Records[1] + Records[2]);
    EXPECT_THAT(log.GetMessages(), testing::IsEmpty());
}

TEST(ChangeLogTest, CutAtAnyByteItHoldsTheWholeRecordsBeforeAndSaysSo)
{
    const std::string text = FirstLine + Records[0] + Records[1] + Records[2];
    for (std::size_t size = 0; size < text.size(); ++size)
    {
        SCOPED_TRACE(size);
        const std::string cut = text.substr(0, size);
        const ChangeLog log(cut);
        std::size_t whole = 0;
        std::size_t end = FirstLine.size();
        for (; whole < 3 && end + Records[whole].size() <= size; ++whole)
        {
            end += Records[whole].size();
        }
        EXPECT_EQ(log.GetContent().has_value(), size >= FirstLine.size());
        EXPECT_EQ(log.GetRecords().size(), whole);
        EXPECT_EQ(log.GetEnd(), size == end ? ChangeLog::Whole : ChangeLog::Cut);
        EXPECT_EQ(LayerOf(log), LayerAfter(whole));
    }
}

TEST(ChangeLogTest, EveryTurnedBitOfTheLastTwoRecordsIsDamageFromThatRecordOn)
{
    const std::string text = FirstLine + Records[0] + Records[1] + Records[2];
    const std::size_t last = text.size() - Records[2].size();
    for (std::size_t byte = last - Records[1].size(); byte < text.size(); ++byte)
    {
        for (int bit = 0; bit < 8; ++bit)
        {
            SCOPED_TRACE(std::to_string(byte) + '.' + std::to_string(bit));
            std::string damaged = text;
            damaged[byte] = static_cast<char>(damaged[byte] ^ (1 << bit));
            const ChangeLog log(damaged);
            EXPECT_EQ(log.GetEnd(), ChangeLog::Damaged);
            ASSERT_EQ(log.GetRecords().size(), byte < last ? 1u : 2u);
        }
    }
}

TEST(ChangeLogTest, EveryTurnedBitOfTheFirstLineIsDamage)
{
    for (std::size_t bit = 0; bit < FirstLine.size() * 8; ++bit)
    {
        SCOPED_TRACE(bit);
        std::string damaged = FirstLine + Records[0];
        damaged[bit / 8] = static_cast<char>(damaged[bit / 8] ^ (1 << bit % 8));
        const ChangeLog log(damaged);
        EXPECT_EQ(log.GetContent(), std::nullopt);
        EXPECT_EQ(log.GetEnd(), ChangeLog::Damaged);
        EXPECT_TRUE(log.GetRecords().empty());
    }
}

TEST(ChangeLogTest, ZeroesInThePlaceOfTheLastRecordAreDamage)
{
    for (const std::size_t zeroes : {1u, 20u, 4096u})
    {
        const std::string text = FirstLine + Records[0] + std::string(zeroes, '\0');
        EXPECT_EQ(ChangeLog(text).GetEnd(), ChangeLog::Damaged);
        EXPECT_EQ(ChangeLog(text).GetRecords().size(), 1u);
    }
    EXPECT_EQ(ChangeLog(std::string(100, '\0')).GetEnd(), ChangeLog::Damaged);
}

TEST(ChangeLogTest, ALaterVersionIsNotTaken)
{
    std::string text = FirstLine;
    text.replace(text.find("1"), 1, "2");
    EXPECT_EQ(ChangeLog(text).GetContent(), std::nullopt);
}

TEST(ChangeLogTest, AnythingCanBeRead)
{
    const std::string pieces[] = {"#log 1 of ", "16",
                                  " bytes ",    "c8d21859",
                                  " ",          "\n",
                                  "#change ",   "99999999999999999999999",
                                  "#remove ",   "[",
                                  "]",          FirstLine,
                                  Records[0],   std::string(1, '\0')};
    const LogCapture quiet;
    std::mt19937 random(20260229);
    for (int round = 0; round < 5000; ++round)
    {
        std::string text;
        for (unsigned int count = static_cast<unsigned int>(random()) % 8; count > 0; --count)
        {
            text += pieces[random() % std::size(pieces)];
        }
        const ChangeLog log(text);
        LayerOf(log);
        ChangeLog::Parts parts(text);
        EXPECT_TRUE(log.GetContent() || log.GetRecords().empty());
    }
}

}  // namespace
}  // namespace korlo::daemon
