#include "settings/SettingLocator.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "korlo/osa/Exception.h"
#include "support/Files.h"

namespace korlo::settings
{
namespace
{

TEST(SettingLocatorTest, HoldsAGroupAndAKeyAsTheyAreGiven)
{
    const SettingLocator locator("[Net]", "a]b");
    EXPECT_EQ(locator.group, "[Net]");
    EXPECT_EQ(locator.key, "a]b");
}

TEST(SettingLocatorTest, TakesTheOneTextFormApart)
{
    struct Row
    {
        const char* text;
        const char* group;
        const char* key;
    };
    const std::vector<Row> rows = {
        {"[Network]Address", "Network", "Address"},
        {"[Network/Eth 0]the address", "Network/Eth 0", "the address"},
        {"x[Network]Address", "Network", "Address"},
        {"[Network]", "Network", ""},
        {"[]Key", "", "Key"},
        {"[]", "", ""},
        {"[Network]list[1]", "Network", "list[1]"},
        {"[Network]]", "Network", "]"},
        {"[[Network]Address", "", "Network]Address"},
        {"]Network[Address", "Network", "Address"},
    };
    for (const Row& row : rows)
    {
        SCOPED_TRACE(row.text);
        const SettingLocator locator{std::string(row.text)};
        EXPECT_EQ(locator.group, row.group);
        EXPECT_EQ(locator.key, row.key);
    }
}

TEST(SettingLocatorTest, RefusesATextWithoutTwoBracketsAndNamesIt)
{
    for (const std::string text : {"Network.Address", "", "[Network", "Network]Address", "100%s"})
    {
        SCOPED_TRACE(text);
        EXPECT_EQ(MessageOf([&] { const SettingLocator locator(text); }),
                  "Failed to parse '" + text + "' as a SettingLocator");
    }
}

TEST(SettingLocatorTest, IsAValue)
{
    const SettingLocator address("Network", "Address");
    SettingLocator copy(address);
    copy.key = "Mask";
    EXPECT_EQ(address.key, "Address");

    copy = address;
    EXPECT_EQ(copy.group, "Network");
    EXPECT_EQ(copy.key, "Address");
}

}  // namespace
}  // namespace korlo::settings
