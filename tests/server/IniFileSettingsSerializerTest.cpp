#include "server/IniFileSettingsSerializer.h"

#include <iterator>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "support/Documents.h"
#include "support/LogCapture.h"
#include "support/Selection.h"

namespace korlo::settings::server
{
namespace
{

using core::IniFile;

const IniFileSettingsSerializer Serializer;

std::string RestOf(std::istream& in)
{
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

TEST(IniFileSettingsSerializerTest, WritesOnlyTheSelectedGroupsAsTheDocumentDoes)
{
    const IniFile ini = Ini("[a]\nx=1\n[b]\ny=2\n[c]\nz=3\n");
    std::ostringstream expected;
    ini.SaveGroupToStream(expected, "b");
    EXPECT_EQ(Serialized(Serializer, ini, {"b", "bb", "missing"}), expected.str());
}

TEST(IniFileSettingsSerializerTest, WritesInNameOrderWhateverSelects)
{
    const IniFile ini = Ini("[a]\nx=1\n[b]\ny=2\n[c]\nz=3\n");
    EXPECT_EQ(Serialized(Serializer, ini, {"c", "a*", "b"}), TextOf(ini));
    // Unlike SerializeIni of the matcher, this passes no name over.
    EXPECT_EQ(Serialized(Serializer, ini, {"b"}), TextOf(Ini("[b]\ny=2\n")));
}

TEST(IniFileSettingsSerializerTest, WritesNothingWhenNothingIsSelected)
{
    EXPECT_EQ(Serialized(Serializer, Ini("[a]\nx=1\n"), {"b", "c*"}), "");
    EXPECT_EQ(Serialized(Serializer, IniFile(), {"*"}), "");
}

TEST(IniFileSettingsSerializerTest, ReadsUpToTheFullStopAndLeavesTheRest)
{
    std::istringstream in("[a]\nx=1\n[b]\ny=2\n.\nnext command\n");
    IniFile ini;
    Serializer.OnDeserialize(in, ini);
    EXPECT_EQ(ini, Ini("[a]\nx=1\n[b]\ny=2\n"));
    EXPECT_EQ(RestOf(in), "next command\n");
}

TEST(IniFileSettingsSerializerTest, ReadsOnTopOfWhatTheDocumentHolds)
{
    std::istringstream in("[a]\nx=new\n.\n");
    IniFile ini = Ini("[a]\nx=old\ny=kept\n[b]\nz=kept\n");
    Serializer.OnDeserialize(in, ini);
    EXPECT_EQ(ini, Ini("[a]\nx=new\ny=kept\n[b]\nz=kept\n"));
}

TEST(IniFileSettingsSerializerTest, AnEmptyBlockChangesNothing)
{
    std::istringstream in(".\nrest");
    IniFile ini = Ini("[a]\nx=1\n");
    Serializer.OnDeserialize(in, ini);
    EXPECT_EQ(ini, Ini("[a]\nx=1\n"));
    EXPECT_EQ(RestOf(in), "rest");
}

TEST(IniFileSettingsSerializerTest, SkipsLinesThatMakeNoSenseWithAWarning)
{
    const LogCapture log;
    std::istringstream in("[a]\nnonsense\nx=1\n.\n");
    IniFile ini;
    Serializer.OnDeserialize(in, ini);
    EXPECT_EQ(ini, Ini("[a]\nx=1\n"));
    EXPECT_EQ(log.GetMessages().size(), 1u);
}

TEST(IniFileSettingsSerializerTest, AnyBytesSurviveABlock)
{
    IniFile ini;
    ini["."]["."] = ".";
    ini["a\n.\nb"][""] = "\n.\n";
    ini[""]["k"] = std::string("\0\r\n[x]\n", 7);

    std::stringstream stream;
    stream << Serialized(Serializer, ini, {"*"}) << ".\nrest";
    IniFile read;
    Serializer.OnDeserialize(stream, read);
    EXPECT_EQ(read, ini);
    EXPECT_EQ(RestOf(stream), "rest");
}

}  // namespace
}  // namespace korlo::settings::server
