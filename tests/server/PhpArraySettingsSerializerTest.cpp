#include "server/PhpArraySettingsSerializer.h"

#include <cstdio>
#include <iterator>
#include <locale>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sys/resource.h>

#include "support/Documents.h"
#include "support/Files.h"
#include "support/PiecewiseStream.h"
#include "support/Selection.h"

namespace korlo::settings::server
{
namespace
{

using core::IniFile;

const PhpArraySettingsSerializer Serializer;

/// Reads the text on top of `ini`; the message of the fault, if any.
std::string FaultOf(const std::string& text, IniFile& ini)
{
    std::istringstream in(text);
    return MessageOf([&] { Serializer.OnDeserialize(in, ini); });
}

std::string FaultOf(const std::string& text)
{
    IniFile ini;
    return FaultOf(text, ini);
}

std::string Missing(char expected)
{
    return std::string("phparray missing data (expected '") + expected + "')";
}

std::string Instead(char expected, char found)
{
    return std::string("expected: '") + expected + "' but got: '" + found + "'";
}

const std::string NoSize = "failed to read size specification";

/// Builds a text token by token and notes, for each of its bytes, the fault of a text that ends before that byte.
class Script
{
public:
    Script& Fixed(const std::string& characters)
    {
        for (const char character : characters)
        {
            Add(character, Missing(character));
            fixed.push_back(text.size() - 1);
        }
        return *this;
    }

    /// A number that a ':' follows: once it has a digit, only that is missing.
    Script& Number(std::size_t number)
    {
        std::string fault = NoSize;
        for (const char digit : std::to_string(number))
        {
            Add(digit, fault);
            fault = Missing(':');
        }
        return *this;
    }

    /// The bytes of the chunk of 255 that was cut short count as missing, all of them.
    Script& Bytes(const std::string& bytes)
    {
        for (std::size_t i = 0; i < bytes.size(); ++i)
        {
            const std::size_t missing = bytes.size() - i / 255 * 255;
            Add(bytes[i], "phparray failed to read " + std::to_string(missing) + " characters for string");
        }
        return *this;
    }

    Script& String(const std::string& bytes)
    {
        return Fixed("s:").Number(bytes.size()).Fixed(":\"").Bytes(bytes).Fixed("\";");
    }

    Script& Array(std::size_t count) { return Fixed("a:").Number(count).Fixed(":{"); }

    std::string text;
    std::vector<std::string> faults;
    std::vector<std::size_t> fixed;  // where the fixed characters stand

private:
    void Add(char character, const std::string& fault)
    {
        text += character;
        faults.push_back(fault);
    }
};

Script MakeScript()
{
    Script script;
    script.Array(2);
    script.String("net").Array(2);
    script.String("mode").String("dhcp").String("text").String(std::string(600, 'x'));
    script.Fixed("}");
    script.String("ui").Array(0).Fixed("}");
    script.Fixed("}");
    return script;
}

TEST(PhpArraySettingsSerializerTest, WritesNestedArraysByteForByte)
{
    EXPECT_EQ(Serialized(Serializer, Ini("[net]\nmode=dhcp\n[ui]\n"), {"*"}),
              "a:2:{s:3:\"net\";a:1:{s:4:\"mode\";s:4:\"dhcp\";}s:2:\"ui\";a:0:{}}\n\n");
    EXPECT_EQ(Serialized(Serializer, Ini("[b]\nz=\na=1\n[a]\n[c]\n"), {"b", "a*", "missing"}),
              "a:2:{s:1:\"a\";a:0:{}s:1:\"b\";a:2:{s:1:\"a\";s:1:\"1\";s:1:\"z\";s:0:\"\";}}\n\n");
}

TEST(PhpArraySettingsSerializerTest, NothingSelectedIsAnEmptyArrayThatReadsAsNoChange)
{
    EXPECT_EQ(Serialized(Serializer, Ini("[a]\nx=1\n"), {"b"}), "a:0:{}\n\n");
    EXPECT_EQ(Serialized(Serializer, IniFile(), {"*"}), "a:0:{}\n\n");

    IniFile ini = Ini("[a]\nx=1\n");
    EXPECT_EQ(FaultOf("a:0:{}\n\n", ini), "");
    EXPECT_EQ(ini, Ini("[a]\nx=1\n"));
}

TEST(PhpArraySettingsSerializerTest, LengthsCountBytesAndBytesAreNotEscaped)
{
    IniFile ini;
    ini["g"][std::string("\0\"", 2)] = "\xC3\xA9\";}\n{";
    EXPECT_EQ(Serialized(Serializer, ini, {"g"}),
              std::string("a:1:{s:1:\"g\";a:1:{s:2:\"") + '\0' + "\"\";s:7:\"\xC3\xA9\";}\n{\";}}\n\n");
}

TEST(PhpArraySettingsSerializerTest, FlushesTheStream)
{
    class Counting : public std::stringbuf
    {
    public:
        int syncs = 0;

    protected:
        int sync() override
        {
            ++syncs;
            return std::stringbuf::sync();
        }
    };
    Counting buffer;
    std::ostream out(&buffer);
    Serializer.OnSerialize(IniFile(), common::GroupNameMatcher(), out);
    EXPECT_EQ(buffer.syncs, 1);
}

/// Groups the digits of numbers by dots.
class Grouping : public std::numpunct<char>
{
protected:
    char do_thousands_sep() const override { return '.'; }
    std::string do_grouping() const override { return "\3"; }
};

TEST(PhpArraySettingsSerializerTest, NumbersAreWrittenPlainWhateverTheStreamsLocaleAndFlags)
{
    IniFile ini;
    ini["g"]["k"] = std::string(1234, 'x');
    common::GroupNameMatcher matcher;
    matcher.AddNameOrPattern("g");
    std::ostringstream out;
    out.imbue(std::locale(std::locale::classic(), new Grouping));
    out << std::hex << std::showbase;
    Serializer.OnSerialize(ini, matcher, out);
    EXPECT_EQ(out.str(), Serialized(Serializer, ini, {"g"}));
}

TEST(PhpArraySettingsSerializerTest, ReadsGroupsKeysAndEmptyGroups)
{
    IniFile ini;
    EXPECT_EQ(FaultOf("a:2:{s:3:\"net\";a:1:{s:4:\"mode\";s:4:\"dhcp\";}s:2:\"ui\";a:0:{}}", ini), "");
    EXPECT_EQ(ini, Ini("[net]\nmode=dhcp\n[ui]\n"));
}

TEST(PhpArraySettingsSerializerTest, ReadsOnTopOfWhatTheDocumentHoldsAndTheLastOfEqualKeysWins)
{
    IniFile ini = Ini("[a]\nx=old\ny=kept\n[b]\nz=kept\n");
    EXPECT_EQ(FaultOf("a:2:{s:1:\"a\";a:2:{s:1:\"x\";s:1:\"1\";s:1:\"x\";s:1:\"2\";}"
                      "s:1:\"a\";a:1:{s:1:\"w\";s:1:\"3\";}}",
                      ini),
              "");
    EXPECT_EQ(ini, Ini("[a]\nw=3\nx=2\ny=kept\n[b]\nz=kept\n"));
}

TEST(PhpArraySettingsSerializerTest, LeavesWhatFollowsTheLastBrace)
{
    std::istringstream in("a:1:{s:1:\"a\";a:0:{}}\n\nnext command\n");
    IniFile ini;
    Serializer.OnDeserialize(in, ini);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()), "\n\nnext command\n");
}

TEST(PhpArraySettingsSerializerTest, StringsOfAnyLengthAreReadWhole)
{
    for (const std::size_t length : {0u, 1u, 254u, 255u, 256u, 509u, 510u, 511u, 100000u})
    {
        SCOPED_TRACE(length);
        IniFile ini;
        ini["g"]["k"] = std::string(length, '"');
        IniFile read;
        EXPECT_EQ(FaultOf(Serialized(Serializer, ini, {"*"}), read), "");
        EXPECT_EQ(read, ini);
    }
}

TEST(PhpArraySettingsSerializerTest, WhiteSpaceIsSkippedBetweenTokensAndCountedInStrings)
{
    IniFile ini;
    EXPECT_EQ(FaultOf(" a\n: 1 :\t{ s : 3 : \"n t\" ; a : 1 : { s:2:\" k\" ;\r\n s : 2: \"\n \" ; } \n}", ini), "");
    IniFile expected;
    expected["n t"][" k"] = "\n ";
    EXPECT_EQ(ini, expected);
    EXPECT_EQ(FaultOf("a:1:{s:1:\" n\";a:0:{}}"), Instead('"', 'n'));
}

/// What reading leaves: the message of the fault, the document, and what was not read.
std::string Outcome(std::istream& in)
{
    IniFile ini;
    const std::string fault = MessageOf([&] { Serializer.OnDeserialize(in, ini); });
    in.clear();
    const std::string rest((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    return fault + '|' + Serialized(Serializer, ini, {"*"}) + '|' + rest;
}

TEST(PhpArraySettingsSerializerTest, WhatATextMeansDoesNotDependOnThePiecesItArrivesIn)
{
    std::vector<std::string> texts = {
        "a:+1:{s:-0:\"\";a:00:{}}rest",                   // signs and zeros, as any number may have them
        "a:-4294967295:{s:1:\"g\";a:0:{}}rest",           // a negative number counts from the top
        "a:1:{s:1:\"g\" ;a:1:{s:1 :\"k\";s:1: \"v\";}}",  // white space where none is written
        "a:1:{s:1:\"g\";a:1:{s:0001:\"k\";s:1:\"v\";}}",
        "a:1:{s:1:\"g;a:0:{}}",
        "a:1:{s:2:\"g\";a:0:{}}",
        "a:1:{s:1:\"g\",a:0:{}}",
        "a:1:{s:0x1:\"g\";a:0:{}}",
        "a:1:{s:1,000:\"g\";a:0:{}}",
        "a:1:{s:4294967296:\"g\";a:0:{}}",
        "a:1:{s:4294967295:\"g\";",
        "a:1[s:1:\"g\";a:0:{}}",
    };
    const Script script = MakeScript();
    for (std::size_t length = 0; length <= script.text.size(); length += 7)
    {
        texts.push_back(script.text.substr(0, length));
    }
    for (const std::string& text : texts)
    {
        SCOPED_TRACE(text);
        PiecewiseStream byByte(text, 1);
        const std::string expected = Outcome(byByte);
        for (const std::size_t pieceBytes : {2u, 3u, 7u, 16u, 255u, 100000u})
        {
            PiecewiseStream in(text, pieceBytes);
            ASSERT_EQ(Outcome(in), expected) << "in pieces of " << pieceBytes;
        }
    }
}

TEST(PhpArraySettingsSerializerTest, NumbersAreReadByTheStreamsLocaleAndFlags)
{
    const std::string value(1234, 'x');
    const std::string dotted = "a:1:{s:1:\"g\";a:1:{s:1:\"k\";s:1.234:\"" + value + "\";}}";
    std::istringstream grouped(dotted);
    grouped.imbue(std::locale(std::locale::classic(), new Grouping));
    IniFile ini;
    Serializer.OnDeserialize(grouped, ini);
    EXPECT_EQ(ini["g"]["k"], value);
    EXPECT_EQ(FaultOf(dotted), Instead(':', '.'));

    std::istringstream hexadecimal("a:1:{s:10:\"sixteen bytes it\";a:0:{}}");
    hexadecimal >> std::hex;
    ini.Clear();
    Serializer.OnDeserialize(hexadecimal, ini);
    EXPECT_EQ(ini, Ini("[sixteen bytes it]\n"));
}

TEST(PhpArraySettingsSerializerTest, AStreamThatDoesNotSkipWhiteSpaceIsTakenAtItsWord)
{
    std::istringstream in("a:1:{s:1:\"g\"; a:0:{}}");
    in >> std::noskipws;
    IniFile ini;
    EXPECT_EQ(MessageOf([&] { Serializer.OnDeserialize(in, ini); }), Instead('a', ' '));
}

TEST(PhpArraySettingsSerializerTest, RandomDocumentsSurvive)
{
    for (unsigned int seed = 1; seed <= 100; ++seed)
    {
        SCOPED_TRACE("seed " + std::to_string(seed));
        std::mt19937 random(seed);
        const auto randomBytes = [&random] {
            std::string bytes(random() % (random() % 8 == 0 ? 600 : 8), '\0');
            for (char& byte : bytes)
            {
                byte = static_cast<char>(random() % 256);
            }
            return bytes;
        };
        IniFile ini;
        for (auto groups = random() % 6; groups > 0; --groups)
        {
            IniFile::KeyValueMap& values = ini[randomBytes()];
            for (auto keys = random() % 6; keys > 0; --keys)
            {
                const std::string key = randomBytes();
                values[key] = randomBytes();
            }
        }
        IniFile read;
        ASSERT_EQ(FaultOf(Serialized(Serializer, ini, {"*"}), read), "");
        ASSERT_EQ(read, ini);
    }
}

TEST(PhpArraySettingsSerializerTest, ATextCutAfterAnyByteNamesWhatIsMissing)
{
    const Script script = MakeScript();
    IniFile whole;
    ASSERT_EQ(FaultOf(script.text, whole), "");
    IniFile soFar;
    for (std::size_t length = 0; length < script.text.size(); ++length)
    {
        IniFile ini;
        ASSERT_EQ(FaultOf(script.text.substr(0, length), ini), script.faults[length]) << "after " << length << " bytes";
        ASSERT_TRUE(whole.ContainsSettings(ini)) << "after " << length << " bytes";
        ASSERT_TRUE(ini.ContainsSettings(soFar)) << "after " << length << " bytes";
        soFar = ini;
    }
    EXPECT_EQ(soFar, whole);
}

TEST(PhpArraySettingsSerializerTest, AnyWrongCharacterIsNamedBesideTheExpectedOne)
{
    const Script script = MakeScript();
    for (const std::size_t position : script.fixed)
    {
        std::string text = script.text;
        text[position] = '#';
        ASSERT_EQ(FaultOf(text), Instead(script.text[position], '#')) << "at byte " << position;
    }
}

TEST(PhpArraySettingsSerializerTest, ASizeThatIsNoNumberIsNamed)
{
    for (const std::string text :
         {"a:x:{}", "a::{}", "a:4294967296:{", "a:1:{s:x:\"", "a:1:{s:99999999999999999999:\"", "a:1:{s:1:\"g\";a:{}}"})
    {
        EXPECT_EQ(FaultOf(text), NoSize) << text;
    }
}

TEST(PhpArraySettingsSerializerTest, GroupsAndPairsReadBeforeAFaultStay)
{
    struct Row
    {
        const char* text;
        const char* kept;
    };
    const std::vector<Row> rows = {
        {"a:2:{s:1:\"a\";a:1:{s:1:\"x\";s:1:\"1\";}}", "[a]\nx=1\n"},            // more groups announced
        {"a:1:{s:1:\"a\";a:2:{s:1:\"x\";s:1:\"1\";}}", "[a]\nx=1\n"},            // more pairs announced
        {"a:1:{s:1:\"a\";a:2:{s:1:\"x\";s:1:\"1\";s:1:\"y\";}}", "[a]\nx=1\n"},  // a key without a value
        {"a:1:{s:1:\"a\";a:1:{s:1:\"x\";s:1:\"1\";", "[a]\nx=1\n"},              // no brace
        {"a:1:{s:1:\"a\";b", "[a]\n"},                                           // no array
        {"a:1:{s:1:\"a\"", ""},                                                  // an unfinished name
        {"a:1:{s:1:\"a\";a:1:{s:1:\"x\";s:1:\"1\";}s:1:\"b\";", "[a]\nx=1\n"},   // fewer groups announced
    };
    for (const Row& row : rows)
    {
        SCOPED_TRACE(row.text);
        IniFile ini;
        EXPECT_NE(FaultOf(row.text, ini), "");
        EXPECT_EQ(ini, Ini(row.kept));
    }
}

/// The most memory that the process has had so far, in KiB.
long PeakKiB()
{
    rusage usage = {};
    ::getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
}

TEST(PhpArraySettingsSerializerTest, HugeAnnouncedSizesCostNothing)
{
    const long before = PeakKiB();
    EXPECT_EQ(FaultOf("a:4294967295:{"), Missing('s'));
    EXPECT_EQ(FaultOf("a:1:{s:1:\"g\";a:4294967295:{"), Missing('s'));
    EXPECT_EQ(FaultOf("a:4294967295:{}"), Instead('s', '}'));
    EXPECT_EQ(FaultOf("a:1:{s:4294967295:\"abc"), "phparray failed to read 4294967295 characters for string");
    EXPECT_EQ(FaultOf("a:1:{s:4294967295:\"" + std::string(300, 'x')),
              "phparray failed to read 4294967040 characters for string");
    EXPECT_LT(PeakKiB() - before, 16 * 1024);
}

TEST(PhpArraySettingsSerializerTest, AStreamThatHasFailedIsMissingItsFirstCharacter)
{
    std::istringstream in("a:0:{}");
    in.setstate(std::ios::failbit);
    IniFile ini;
    EXPECT_EQ(MessageOf([&] { Serializer.OnDeserialize(in, ini); }), Missing('a'));
}

}  // namespace
}  // namespace korlo::settings::server
