#include "TopicNames.h"

#include <optional>
#include <string>

#include <gtest/gtest.h>

namespace korlo::settings::mqtt
{
namespace
{

struct NameRow
{
    const char* what;
    std::string name;
    std::string level;
};

const NameRow Names[] = {
    {"plain", "Audio", "Audio"},
    {"all that stays", "AZaz09-._~", "AZaz09-._~"},
    {"a path", "Net/eth0", "Net%2Feth0"},
    {"wildcards", "a+b#c", "a%2Bb%23c"},
    {"a per cent sign", "100%", "100%25"},
    {"a zero byte", std::string("a\0b", 3), "a%00b"},
    {"a leading dollar", "$SYS", "%24SYS"},
    {"a blank and a line break", "a b\n", "a%20b%0A"},
    {"not UTF-8", "\xFF\x80", "%FF%80"},
    {"UTF-8",
     "K\xC3\xBC"
     "che",
     "K%C3%BCche"},
    {"nothing", "", ""},
};

TEST(TopicNamesTest, EveryNameSurvivesTheTopic)
{
    for (const NameRow& row : Names)
    {
        SCOPED_TRACE(row.what);
        EXPECT_EQ(EncodeName(row.name), row.level);
        EXPECT_EQ(DecodeName(row.level), row.name);
    }
}

TEST(TopicNamesTest, EveryByteSurvivesTheTopic)
{
    std::string bytes;
    for (int byte = 0; byte < 256; ++byte)
    {
        bytes += static_cast<char>(byte);
    }
    const std::string level = EncodeName(bytes);
    EXPECT_EQ(level.find_first_of(std::string("+#/$\0 ", 6)), std::string::npos);
    EXPECT_EQ(DecodeName(level), bytes);
}

TEST(TopicNamesTest, ANameHasOneFormAlone)
{
    for (const char* level : {"%41", "%2f", "%", "%4", "a b", "a%GGb", "%+1", "caf\xC3\xA9"})
    {
        SCOPED_TRACE(level);
        EXPECT_EQ(DecodeName(level), std::nullopt);
    }
}

TEST(TopicNamesTest, TopicsAreTakenApartAsTheyWereMade)
{
    const TopicNames topics("panel 7");
    EXPECT_EQ(topics.GetStatus(), "korlo/1/panel%207/status");
    EXPECT_EQ(topics.ReportedOf("Net/eth0"), "korlo/1/panel%207/group/Net%2Feth0/reported");
    EXPECT_EQ(topics.AllDesired(), "korlo/1/panel%207/group/+/desired");
    EXPECT_EQ(topics.AcceptedAtLevel("A"), "korlo/1/panel%207/group/A/desired/accepted");
    EXPECT_EQ(topics.RejectedAtLevel("A"), "korlo/1/panel%207/group/A/desired/rejected");

    EXPECT_EQ(topics.Parse(topics.GetStatus()).kind, TopicNames::Status);
    const TopicNames::Parts reported = topics.Parse(topics.ReportedOf("Net/eth0"));
    EXPECT_EQ(reported.kind, TopicNames::Reported);
    EXPECT_EQ(reported.level, "Net%2Feth0");
    EXPECT_EQ(reported.group, "Net/eth0");
    const TopicNames::Parts nameless = topics.Parse("korlo/1/panel%207/group/%41/desired");
    EXPECT_EQ(nameless.kind, TopicNames::Desired);
    EXPECT_EQ(nameless.level, "%41");
    EXPECT_EQ(nameless.group, std::nullopt);
    EXPECT_EQ(topics.Parse("korlo/1/panel%207/group//desired").group, "");
}

TEST(TopicNamesTest, TopicsOfOthersAreForeign)
{
    const TopicNames topics("panel");
    for (const char* topic : {"korlo/1/panel2/status", "korlo/1/panel", "korlo/1/panel/group/A", "korlo/2/panel/status",
                              "korlo/1/panel/group/A/desired/accepted", "korlo/1/panel/group/A/B/desired", ""})
    {
        SCOPED_TRACE(topic);
        EXPECT_EQ(topics.Parse(topic).kind, TopicNames::Foreign);
    }
}

}  // namespace
}  // namespace korlo::settings::mqtt
