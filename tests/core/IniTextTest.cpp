// The text form of a document: what is read, what is written, and that one is the inverse of the other.

#include <random>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "korlo/core/IniFile.h"
#include "support/LogCapture.h"

namespace korlo::core
{
namespace
{

using ::testing::IsEmpty;

std::string TextOf(const IniFile& ini)
{
    std::ostringstream out;
    ini.SaveToStream(out);
    return out.str();
}

std::string TextOfPair(const std::string& key, const std::string& value)
{
    IniFile ini;
    ini.SetValue("g", key, value);
    return TextOf(ini);
}

/// Reads a text that must not hold a bad line.
IniFile FromText(const std::string& text)
{
    LogCapture log;
    IniFile ini;
    ini.LoadFromString(text);
    EXPECT_THAT(log.GetMessages(), IsEmpty());
    return ini;
}

std::string ValueIn(const std::string& line, const std::string& key = "key")
{
    const IniFile ini = FromText("[g]\n" + line + "\n");
    return ini.HasValue("g", key) ? ini.GetValue("g", key) : "no such key";
}

/// Expects that the document survives, by a text that nothing takes for the end of a block.
void ExpectToSurvive(const IniFile& ini)
{
    const std::string text = TextOf(ini);
    EXPECT_EQ(FromText(text), ini) << text;
    EXPECT_EQ(TextOf(FromText(text)), text);
    EXPECT_EQ(("\n" + text).find("\n.\n"), std::string::npos) << text;
    EXPECT_EQ(text.find('\r'), std::string::npos) << text;
}

/// One document that holds the string as group name, as key and as value.
void ExpectToSurviveEverywhere(const std::string& bytes)
{
    IniFile ini;
    ini.SetValue(bytes, "key", "value");
    ini.SetValue("group", bytes, "value");
    ini.SetValue("group", "key", bytes);
    ini.SetValue(bytes + "2", bytes, bytes);
    ini[bytes + "3"];
    ExpectToSurvive(ini);
}

std::string RandomBytes(std::mt19937& random)
{
    constexpr std::string_view favourites = "\"\\[]=#;. \t\n\r\x7F.x0n";
    std::string bytes(random() % 12, '\0');
    for (char& byte : bytes)
    {
        byte = random() % 3 == 0 ? static_cast<char>(random() % 256) : favourites[random() % favourites.size()];
    }
    return bytes;
}

}  // namespace

TEST(IniTextTest, EveryByteSurvivesInEveryPosition)
{
    for (int byte = 0; byte < 256; ++byte)
    {
        SCOPED_TRACE(byte);
        const std::string one(1, static_cast<char>(byte));
        for (const std::string& bytes : {one, one + one, one + "x", "x" + one, "x" + one + "x", "long text " + one,
                                         one + " long text", "eight by" + one + "tes or more"})
        {
            ExpectToSurviveEverywhere(bytes);
        }
    }
}

TEST(IniTextTest, EveryPairOfBytesSurvives)
{
    IniFile ini;
    for (int first = 0; first < 256; ++first)
    {
        for (int second = 0; second < 256; ++second)
        {
            const std::string bytes = {static_cast<char>(first), static_cast<char>(second)};
            ini.SetValue("g", bytes, bytes);
        }
    }
    ExpectToSurvive(ini);
}

TEST(IniTextTest, EveryLengthSurvivesPlainAndQuotedAcrossTheEdgesOfTheWritersBuffer)
{
    for (const std::size_t length : {0u, 1u, 7u, 8u, 9u, 15u, 16u, 17u, 2030u, 2046u, 2047u, 2048u, 2049u, 5000u})
    {
        SCOPED_TRACE(length);
        ExpectToSurviveEverywhere(std::string(length, 'x'));
        ExpectToSurviveEverywhere(std::string(length, '\n'));
        ExpectToSurviveEverywhere(std::string(length, 'x') + '\0');
    }
    for (std::size_t length = 2000; length < 2100; ++length)
    {
        IniFile ini;
        ini.SetValue("g", "a", std::string(length, 'x'));
        ini.SetValue("g", "quoted", "\x01\x02\x03");
        ini.SetValue("g", "z", "plain text behind it");
        ExpectToSurvive(ini);
    }
}

TEST(IniTextTest, RandomDocumentsSurvive)
{
    const unsigned int seed = std::random_device()();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    for (int i = 0; i < 500; ++i)
    {
        IniFile ini;
        for (auto groups = random() % 5; groups != 0; --groups)
        {
            const std::string group = RandomBytes(random);
            ini[group];
            for (auto keys = random() % 6; keys != 0; --keys)
            {
                ini.SetValue(group, RandomBytes(random), RandomBytes(random));
            }
        }
        ExpectToSurvive(ini);
    }
}

TEST(IniTextTest, AnyTextAtAllIsReadAndWhatWasReadSurvives)
{
    const unsigned int seed = std::random_device()();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    for (int i = 0; i < 500; ++i)
    {
        std::string text = "[g]\n";
        for (auto pieces = random() % 12; pieces != 0; --pieces)
        {
            text += RandomBytes(random) + (random() % 2 == 0 ? "\n" : "=");
        }
        IniFile ini;
        {
            LogCapture log;
            ini.LoadFromString(text);
        }
        ExpectToSurvive(ini);
    }
}

TEST(IniTextTest, NoWrittenLineIsExactlyADot)
{
    for (const std::string dots : {".", "\n.\n", ".\n", "\n.", "\r.\r"})
    {
        ExpectToSurviveEverywhere(dots);
    }
    EXPECT_EQ(TextOfPair(".", "."), "[g]\n.=.\n");
}

TEST(IniTextTest, PlainTextIsWrittenPlain)
{
    const char* const values[] = {
        "",      "x",    "a b", "#fff", "http://h/;x", "a=b", "[x]", "it's", "say \"hi\"", "back\\slash", "caf\xC3\xA9",
        "\xFF~", "\x80", ".",   "a  b", "1;2#3",       "]"};
    for (const char* value : values)
    {
        EXPECT_EQ(TextOfPair("key", value), "[g]\nkey=" + std::string(value) + "\n");
    }
    for (const char* key :
         {"x", "a b", "a#b", "a;b", "a[b]", "a\"b", "a\\b", "\xC3\xA9", "]", "\xFF~", "parameter12345"})
    {
        EXPECT_EQ(TextOfPair(key, "v"), "[g]\n" + std::string(key) + "=v\n");
    }
    for (const char* name : {"", "x", "Network/Wifi 2", "a=b", "#", ";x", "[", "a\"b", "a\\b", "\xFF~~~~~~~~"})
    {
        IniFile ini;
        ini[name];
        EXPECT_EQ(TextOf(ini), std::string("[").append(name).append("]\n"));
    }
}

TEST(IniTextTest, WhatPlainTextCannotCarryIsWrittenInQuotes)
{
    const std::pair<std::string, const char*> values[] = {
        {" x", R"(" x")"},
        {"x ", R"("x ")"},
        {" ", R"(" ")"},
        {"\"x", R"("\"x")"},
        {"\tx", R"("\tx")"},
        {"a\nb", R"("a\nb")"},
        {"a\rb", R"("a\rb")"},
        {"\x01", R"("\x01")"},
        {"\x7F", R"("\x7F")"},
        {"\x1F\\", R"("\x1F\\")"},
        {" \xC3\xA9", "\" \xC3\xA9\""},
        {std::string(1, '\0'), R"("\x00")"},
    };
    for (const auto& [value, written] : values)
    {
        EXPECT_EQ(TextOfPair("key", value), "[g]\nkey=" + std::string(written) + "\n");
    }
    const std::pair<const char*, const char*> keys[] = {
        {"", R"("")"},     {" x", R"(" x")"},       {"a=b", R"("a=b")"}, {"#x", R"("#x")"}, {";x", R"(";x")"},
        {"[x", R"("[x")"}, {"\"x\"", R"("\"x\"")"}, {"x\t", R"("x\t")"}, {"=", R"("=")"},
    };
    for (const auto& [key, written] : keys)
    {
        EXPECT_EQ(TextOfPair(key, "v"), "[g]\n" + std::string(written) + "=v\n");
    }
    const std::pair<const char*, const char*> names[] = {
        {"a]", R"(["a]"])"}, {" a", R"([" a"])"}, {"a ", R"(["a "])"}, {"\"a", R"(["\"a"])"}, {"a\nb", R"(["a\nb"])"},
    };
    for (const auto& [name, written] : names)
    {
        IniFile ini;
        ini[name];
        EXPECT_EQ(TextOf(ini), std::string(written) + "\n");
    }
}

TEST(IniTextTest, NothingInAValueIsAComment)
{
    EXPECT_EQ(ValueIn("key=#fff"), "#fff");
    EXPECT_EQ(ValueIn("key=http://h/;x"), "http://h/;x");
    EXPECT_EQ(ValueIn("key = a # b ; c "), "a # b ; c");
    EXPECT_EQ(ValueIn("key=;"), ";");
}

TEST(IniTextTest, CommentsStandAtTheStartOfALineOnly)
{
    EXPECT_EQ(FromText("# one\n; two\n  # three\n\t;four\n[g]\n#key=1\nk#ey=2\nk;ey=3\n"),
              FromText("[g]\nk#ey=2\nk;ey=3\n"));
    EXPECT_TRUE(FromText("# [g]").empty());
}

TEST(IniTextTest, EmptyLinesMeanNothing)
{
    EXPECT_TRUE(FromText("").empty());
    EXPECT_TRUE(FromText("\n\n  \n\t\r\n\n").empty());
    EXPECT_EQ(FromText("\n[g]\n\nkey=1\n \n"), FromText("[g]\nkey=1\n"));
}

TEST(IniTextTest, TheLastLineNeedsNoLineBreak)
{
    EXPECT_EQ(FromText("[g]\nkey=1"), FromText("[g]\nkey=1\n"));
    EXPECT_EQ(FromText("[g]"), FromText("[g]\n"));
}

TEST(IniTextTest, SpacesAroundNamesEqualsSignsAndValuesAreNotPartOfThem)
{
    EXPECT_EQ(FromText("  [  g\t]  \n\t key \t= \tvalue \t\n"), FromText("[g]\nkey=value\n"));
    EXPECT_EQ(FromText(" [ \" g \" ] \n \" key \" = \" value \" \n"), FromText("[\" g \"]\n\" key \"=\" value \"\n"));
    EXPECT_EQ(ValueIn("key=a  b"), "a  b");
    EXPECT_EQ(ValueIn("k e y=1", "k e y"), "1");
    EXPECT_TRUE(FromText("[ ]").HasGroup(""));
}

TEST(IniTextTest, ReadsLineEndsOfEitherKind)
{
    EXPECT_EQ(FromText("[g]\r\nkey=1\r\n\r\n# c\r\nodd=\" \"\r\n"), FromText("[g]\nkey=1\nodd=\" \"\n"));
    EXPECT_EQ(ValueIn("key=a\rb"), "a\rb") << "a carriage return elsewhere is a byte as any other";
}

TEST(IniTextTest, AByteOrderMarkAtTheStartIsPassedOver)
{
    EXPECT_EQ(FromText("\xEF\xBB\xBF[g]\nkey=1\n"), FromText("[g]\nkey=1\n"));
    EXPECT_TRUE(FromText("\xEF\xBB\xBF").empty());
    EXPECT_EQ(ValueIn("\xEF\xBB\xBFkey=1", "\xEF\xBB\xBFkey"), "1") << "anywhere else it is text";
}

TEST(IniTextTest, AValueMayBeEmpty)
{
    EXPECT_EQ(ValueIn("key="), "");
    EXPECT_EQ(ValueIn("key=  "), "");
    EXPECT_EQ(ValueIn("key=\"\""), "");
}

TEST(IniTextTest, AKeyMayBeEmptyInQuotes)
{
    EXPECT_EQ(ValueIn("\"\"=1", ""), "1");
}

TEST(IniTextTest, TheFirstEqualsSignEndsTheKey)
{
    EXPECT_EQ(ValueIn("key=a=b="), "a=b=");
    EXPECT_EQ(ValueIn("\"a=b\"=c", "a=b"), "c");
}

TEST(IniTextTest, ABackslashEscapesOnlyInsideQuotes)
{
    EXPECT_EQ(ValueIn(R"(key=C:\new\x41)"), R"(C:\new\x41)");
    EXPECT_EQ(ValueIn(R"(key=a "b\n" c)"), R"(a "b\n" c)");
    EXPECT_EQ(ValueIn(R"(a\n=1)", R"(a\n)"), "1");
}

TEST(IniTextTest, ReadsEachEscape)
{
    const std::pair<const char*, std::string> rows[] = {
        {R"("\\")", "\\"},       {R"("\"")", "\""},    {R"("\n")", "\n"},         {R"("\r")", "\r"},
        {R"("\t")", "\t"},       {R"("\x41")", "A"},   {R"("\xfF")", "\xFF"},     {R"("\x00")", std::string(1, '\0')},
        {R"("a\\nb")", "a\\nb"}, {R"("\x414")", "A4"}, {R"("\"\\\"")", "\"\\\""}, {R"("[=]#;")", "[=]#;"},
    };
    for (const auto& [text, expected] : rows)
    {
        SCOPED_TRACE(text);
        EXPECT_EQ(ValueIn("key=" + std::string(text)), expected);
        EXPECT_EQ(ValueIn(std::string(text) + " = 1", expected), "1");
        EXPECT_TRUE(FromText(std::string("[").append(text).append("]")).HasGroup(expected));
    }
}

TEST(IniTextTest, OfEqualKeysTheLaterWins)
{
    EXPECT_EQ(FromText("[g]\nk=1\nk=2\n"), FromText("[g]\nk=2\n"));
    EXPECT_EQ(FromText("[g]\nk=1\na=3\n\"k\"=2\nk = 4\n"), FromText("[g]\na=3\nk=4\n"));
}

TEST(IniTextTest, AGroupThatComesAgainIsContinued)
{
    EXPECT_EQ(FromText("[g]\nk=1\nl=1\n[h]\nk=5\n[g]\nk=2\nm=1\n[ \"g\" ]\nm=3\n"),
              FromText("[g]\nk=2\nl=1\nm=3\n[h]\nk=5\n"));
    EXPECT_EQ(FromText("[g]\nk=1\n[g]\n"), FromText("[g]\nk=1\n"));
}

}  // namespace korlo::core
