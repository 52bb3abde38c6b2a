// Single values of a document: reading, setting, lists.

#include <climits>
#include <set>
#include <string>
#include <utility>

#include <gtest/gtest.h>

#include "korlo/core/IniFile.h"
#include "korlo/osa/Exception.h"

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

}  // namespace

TEST(IniFileValueTest, GetValueGivesAReferenceToTheValue)
{
    IniFile ini = FromText("[a]\nk=1\n");
    const std::string& value = ini.GetValue("a", "k");
    EXPECT_EQ(value, "1");
    for (int i = 0; i < 100; ++i)
    {
        ini.SetValue("a", std::to_string(i), "other");
        ini.SetValue(std::to_string(i), "k", "other");
    }
    EXPECT_EQ(&ini.GetValue("a", "k"), &value);
}

TEST(IniFileValueTest, GetValueOfAMissingKeyIsAnExceptionThatNamesIt)
{
    const IniFile ini = FromText("[a]\nk=1\n");
    for (const auto& [group, key] : {std::pair{"a", "x"}, std::pair{"b", "k"}})
    {
        try
        {
            ini.GetValue(group, key);
            FAIL();
        }
        catch (const osa::Exception& exception)
        {
            EXPECT_EQ(exception.what(), "No key '" + std::string(key) + "' in group '" + group + "'");
        }
    }
}

TEST(IniFileValueTest, GetValueOrDefaultIsEmptyForWhatIsMissing)
{
    const IniFile ini = FromText("[a]\nk=1\n");
    EXPECT_EQ(ini.GetValueOrDefault("a", "k"), "1");
    EXPECT_EQ(ini.GetValueOrDefault("a", "x"), "");
    EXPECT_EQ(ini.GetValueOrDefault("b", "k"), "");
}

TEST(IniFileValueTest, ReadsWholeDecimalIntegersOrTheDefault)
{
    const std::pair<const char*, int> rows[] = {
        {"0", 0},
        {"12", 12},
        {"-12", -12},
        {"007", 7},
        {"2147483647", INT_MAX},
        {"12abc", 99},
        {"abc", 99},
        {"", 99},
        {"-", 99},
        {"-2147483648", INT_MIN},
        {"2147483648", 99},
        {"1.5", 99},
        {"-2147483649", 99},
        {"+1", 99},
        {" 1", 99},
        {"1 ", 99},
        {"0x10", 99},
        {"1\n", 99},
        {"--1", 99},
        {"99999999999999999999", 99},
    };
    for (const auto& [text, expected] : rows)
    {
        SCOPED_TRACE(text);
        IniFile ini;
        ini.SetValue("g", "k", text);
        EXPECT_EQ(ini.GetIntOrDefault("g", "k", 99), expected);
    }
    EXPECT_EQ(IniFile().GetIntOrDefault("g", "k", -5), -5);
    EXPECT_EQ(FromText("[g]\n").GetIntOrDefault("g", "k", -5), -5);
}

TEST(IniFileValueTest, ReadsBooleansInAnyCaseOrTheDefault)
{
    for (const bool def : {true, false})
    {
        IniFile ini;
        for (const char* text : {"true", "TRUE", "True", "yes", "Yes", "on", "ON", "1"})
        {
            ini.SetValue("g", "k", text);
            EXPECT_TRUE(ini.GetBoolOrDefault("g", "k", def)) << text;
        }
        for (const char* text : {"false", "FALSE", "False", "no", "NO", "off", "Off", "0"})
        {
            ini.SetValue("g", "k", text);
            EXPECT_FALSE(ini.GetBoolOrDefault("g", "k", def)) << text;
        }
        for (const char* text : {"", "2", "truex", "tru", " true", "y", "-1", "00"})
        {
            ini.SetValue("g", "k", text);
            EXPECT_EQ(ini.GetBoolOrDefault("g", "k", def), def) << text;
        }
        EXPECT_EQ(ini.GetBoolOrDefault("g", "missing", def), def);
        EXPECT_EQ(ini.GetBoolOrDefault("missing", "k", def), def);
    }
}

TEST(IniFileValueTest, HasGroupIsTrueOfAnEmptyGroupToo)
{
    const IniFile ini = FromText("[empty]\n[a]\nk=\n");
    EXPECT_TRUE(ini.HasGroup("empty"));
    EXPECT_TRUE(ini.HasGroup("a"));
    EXPECT_FALSE(ini.HasGroup("A"));
    EXPECT_TRUE(ini.HasValue("a", "k"));
    EXPECT_FALSE(ini.HasValue("a", "K"));
    EXPECT_FALSE(ini.HasValue("empty", "k"));
    EXPECT_FALSE(ini.HasValue("unknown", "k"));
}

TEST(IniFileValueTest, SetValueCreatesAndReplaces)
{
    IniFile ini;
    ini.SetValue("g", "k", "1");
    EXPECT_EQ(ini, FromText("[g]\nk=1\n"));
    ini.SetValue("g", "k", "2");
    ini.SetValue("g", "l", "3");
    EXPECT_EQ(ini, FromText("[g]\nk=2\nl=3\n"));
    ini.SetValue("g", "k", ini.GetValue("g", "l"));
    EXPECT_EQ(ini, FromText("[g]\nk=3\nl=3\n"));
}

TEST(IniFileValueTest, SetIntWritesDecimalText)
{
    IniFile ini;
    for (const int value : {0, 1, -1, 4711, INT_MAX, INT_MIN})
    {
        ini.SetInt("g", "k", value);
        EXPECT_EQ(ini.GetValue("g", "k"), std::to_string(value));
        EXPECT_EQ(ini.GetIntOrDefault("g", "k", 5), value);
    }
}

TEST(IniFileValueTest, AValueListHoldsEachValueOnce)
{
    IniFile ini;
    ini.ValueListAppendUnique("list", "b");
    ini.ValueListAppendUnique("list", "a");
    ini.ValueListAppendUnique("list", "b");
    ini.ValueListAppendUnique("list", "");
    EXPECT_EQ(ini, FromText("[list]\n1=b\n2=a\n3=\n"));
}

TEST(IniFileValueTest, AValueListTakesAKeyThatIsFree)
{
    IniFile ini = FromText("[list]\n2=b\n3=c\nname=held\n");
    ini.ValueListAppendUnique("list", "held");
    EXPECT_EQ(ini["list"].size(), 3u) << "some key holds it already, whatever its name";
    ini["list"].erase("name");
    ini.ValueListAppendUnique("list", "d");
    ini.ValueListAppendUnique("list", "e");
    EXPECT_EQ(ini["list"].size(), 4u);
    EXPECT_TRUE(ini.ContainsSettings(FromText("[list]\n2=b\n3=c\n4=d\n5=e\n")));
}

TEST(IniFileValueTest, ManyValuesAreAppendedAsOneByOne)
{
    IniFile ini;
    ini.LoadFromString("[list]\n1=a\n4=held\nx=c\n");
    IniFile oneByOne = ini;
    const std::set<std::string> added = {"a", "b", "c", "d", "e", "", "f"};
    ini.ValueListAppendUnique("list", added);
    for (const std::string& value : added)
    {
        oneByOne.ValueListAppendUnique("list", value);
    }
    EXPECT_EQ(ini, oneByOne);
    ini.ValueListAppendUnique("none", std::set<std::string>());
    EXPECT_EQ(ini, oneByOne);
}

}  // namespace korlo::core
