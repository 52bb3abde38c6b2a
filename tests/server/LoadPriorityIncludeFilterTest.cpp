#include "settings/server/LoadPriorityIncludeFilter.h"

#include <initializer_list>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "korlo/core/Logger.h"
#include "settings/server/SettingsCombiner.h"
#include "support/Documents.h"
#include "support/LogCapture.h"

namespace korlo::settings::server
{
namespace
{

using core::IniFile;

const std::string Reserved = "KorloSettings/LoadPriority";

/// A document that holds the group A with one key, which names the document, and claims A unless the claim is empty.
std::string Document(const std::string& name, const std::string& claim)
{
    const std::string group = "[A]\nfrom=" + name + "\n" + name + "=1\n";
    return claim.empty() ? group : group + "[" + Reserved + "]\nA=" + claim + "\n";
}

/// The layer that the documents give, one after the other, through one filter.
IniFile Loaded(LoadPriorityIncludeFilter& filter, const std::vector<std::string>& documents)
{
    IniFile target;
    SettingsCombiner combiner(target);
    combiner.AddFilter(&filter);
    for (const std::string& document : documents)
    {
        combiner.LoadFromString(document);
    }
    return target;
}

IniFile Loaded(const std::vector<std::string>& documents)
{
    LoadPriorityIncludeFilter filter;
    return Loaded(filter, documents);
}

TEST(LoadPriorityIncludeFilterTest, WithoutClaimsTheLaterDocumentWinsKeyByKey)
{
    EXPECT_EQ(Loaded({"[A]\nx=1\ny=1\n", "[A]\nx=2\n"}), Ini("[A]\nx=2\ny=1\n"));
}

TEST(LoadPriorityIncludeFilterTest, AClaimedGroupIsKeptFromALaterDocumentUnlessItClaimsAtLeastAsMuch)
{
    struct Row
    {
        const char* first;
        const char* second;
        bool isKept;
    };
    const std::vector<Row> rows = {
        {"5", "", false},  {"5", "4", false},   {"5", "5", true},     {"5", "6", true},
        {"-3", "", false}, {"-3", "-4", false}, {"-3", "-3", true},   {"-3", "0", true},
        {"0", "", false},  {"5", "-6", false},  {"5", "high", false}, {"2147483647", "2147483646", false},
        {"", "", true},    {"", "5", true},     {"", "-5", true},
    };
    for (const Row& row : rows)
    {
        SCOPED_TRACE(std::string("first claims '") + row.first + "', second '" + row.second + "'");
        const IniFile layer = Loaded({Document("first", row.first), Document("second", row.second)});
        EXPECT_EQ(layer, row.isKept ? Ini("[A]\nfirst=1\nfrom=second\nsecond=1\n") : Ini("[A]\nfirst=1\nfrom=first\n"));
    }
}

TEST(LoadPriorityIncludeFilterTest, TheHighestClaimIsRemembered)
{
    LoadPriorityIncludeFilter filter;
    EXPECT_EQ(Loaded(filter, {Document("first", "5"), Document("second", "6"), Document("third", "5")})
                  .GetValueOrDefault("A", "from"),
              "second");
    // A weaker claim that was refused has not weakened the one that is remembered.
    EXPECT_FALSE(Loaded(filter, {Document("fourth", "5")}).HasGroup("A"));
    EXPECT_TRUE(Loaded(filter, {Document("fifth", "6")}).HasGroup("A"));
}

TEST(LoadPriorityIncludeFilterTest, ADocumentsOwnClaimsAreNotHeldAgainstIt)
{
    LoadPriorityIncludeFilter filter;
    EXPECT_EQ(Loaded(filter, {"[A]\nx=1\n[B]\nx=1\n", Document("second", "5")}),
              Ini("[A]\nfrom=second\nsecond=1\nx=1\n[B]\nx=1\n"));
    EXPECT_EQ(Loaded(filter, {"[A]\nx=3\n[B]\nx=3\n"}), Ini("[B]\nx=3\n"));
}

TEST(LoadPriorityIncludeFilterTest, AGroupIsDroppedWholeWithTheKeysThatOnlyTheLaterDocumentHas)
{
    EXPECT_EQ(Loaded({"[A]\nx=1\n[" + Reserved + "]\nA=5\n", "[A]\nx=2\nnew=2\n[B]\ny=2\n"}),
              Ini("[A]\nx=1\n[B]\ny=2\n"));
}

TEST(LoadPriorityIncludeFilterTest, AClaimHoldsForAGroupThatTheClaimingDocumentDoesNotCarry)
{
    EXPECT_EQ(Loaded({"[" + Reserved + "]\nA=5\n", "[A]\nx=2\n[B]\ny=2\n"}), Ini("[B]\ny=2\n"));
}

TEST(LoadPriorityIncludeFilterTest, AClaimThatIsNoIntegerIsIgnored)
{
    for (const std::string text : {"high", "", "5x", "1.5", "\" 5\"", "+5", "2147483648", "-2147483649", "0x5", "--5"})
    {
        SCOPED_TRACE(text);
        LoadPriorityIncludeFilter filter;
        const std::string claiming = "[A]\nx=1\n[" + Reserved + "]\nA=" + text + "\nB=1\n";
        EXPECT_EQ(Loaded(filter, {claiming, "[A]\nx=2\n[B]\nx=2\n"}), Ini("[A]\nx=2\n"));
    }
}

TEST(LoadPriorityIncludeFilterTest, ARestrictedGroupCannotBeClaimedAndIsNeverDropped)
{
    for (const std::string name : {"Device/SecureBoot", "TrustedCerts"})
    {
        SCOPED_TRACE(name);
        const std::string claiming = "[" + name + "]\nx=1\n[" + Reserved + "]\n" + name + "=5\nB=1\n";
        const std::string later = "[" + name + "]\nx=2\n[B]\nx=2\n";
        EXPECT_EQ(Loaded({claiming, later}), Ini("[" + name + "]\nx=2\n"));
    }
}

TEST(LoadPriorityIncludeFilterTest, TheClaimingGroupReachesNoLayer)
{
    for (const std::string claims : {"A=5\n", "A=high\n", "SecureX=1\n", "KorloSettings/LoadPriority=9\n", ""})
    {
        SCOPED_TRACE(claims);
        LoadPriorityIncludeFilter filter;
        const std::string document = "[A]\nx=1\n[" + Reserved + "]\n" + claims;
        EXPECT_EQ(Loaded(filter, {document}), Ini("[A]\nx=1\n"));
        EXPECT_FALSE(Loaded(filter, {document}).HasGroup(Reserved));
    }
}

TEST(LoadPriorityIncludeFilterTest, TheSourceDocumentKeepsItsClaims)
{
    LoadPriorityIncludeFilter filter;
    IniFile target;
    SettingsCombiner combiner(target);
    combiner.AddFilter(&filter);
    const IniFile source = Ini(Document("first", "5"));
    combiner.LoadFromIni(source);
    EXPECT_EQ(source, Ini(Document("first", "5")));
    EXPECT_FALSE(target.HasGroup(Reserved));
}

TEST(LoadPriorityIncludeFilterTest, AnEmptyDocumentStaysEmpty)
{
    LoadPriorityIncludeFilter filter;
    filter.MergePriorities({{"A", 1}});
    IniFile ini;
    filter.FilterIni(ini);
    EXPECT_TRUE(ini.empty());
}

// Meant: a claim, once made, holds as long as the filter lives.
TEST(LoadPriorityIncludeFilterTest, ASecondLoadDropsWhatCameBeforeTheClaimInTheFirst)
{
    LoadPriorityIncludeFilter filter;
    const std::vector<std::string> documents = {Document("first", ""), Document("second", "5")};
    EXPECT_EQ(Loaded(filter, documents), Ini("[A]\nfirst=1\nfrom=second\nsecond=1\n"));
    EXPECT_EQ(Loaded(filter, documents), Ini("[A]\nfrom=second\nsecond=1\n"));
    EXPECT_EQ(Loaded(filter, documents), Ini("[A]\nfrom=second\nsecond=1\n"));
}

TEST(LoadPriorityIncludeFilterTest, MergePrioritiesKeepsTheGreaterOfTwo)
{
    LoadPriorityIncludeFilter filter;
    filter.MergePriorities({{"A", 5}, {"B", -2}});
    filter.MergePriorities({{"A", 4}, {"B", -1}, {"C", 0}});
    const IniFile layer = Loaded(filter, {"[A]\n[B]\n[C]\n[D]\n[" + Reserved + "]\nA=5\nB=-2\nC=0\n"});
    EXPECT_EQ(layer, Ini("[A]\n[C]\n[D]\n"));
}

TEST(LoadPriorityIncludeFilterTest, ATraceNamesEachGroupThatIsDroppedAndEachClaimThatIsIgnored)
{
    const LogCapture log;
    core::Logger::GetLogger("LoadPriorityIncludeFilter")->SetThreshold(core::LogLevelTrace);
    Loaded({"[" + Reserved + "]\nA=5\nB=7\nC=1\nDeviceSecure=9\nD=high\n",  // D=high and a restricted group: ignored
            "[A]\nx=1\n[" + Reserved + "]\nA=4\n",                          // too weak a claim
            "[B]\nx=1\n",                                                   // none; and no word of A and C
            "[C]\nx=1\n[" + Reserved + "]\nC=1\n"});                        // kept
    const std::string prefix = "8 LoadPriorityIncludeFilter: ";
    EXPECT_THAT(
        log.GetMessages(),
        testing::ElementsAre(
            prefix + "The claim for group 'D' is ignored: it is not an integer",
            prefix + "The claim for group 'DeviceSecure' is ignored: the group is restricted",
            prefix + "Group 'A' is dropped: it was claimed with priority 5, and this document claims it with 4",
            prefix + "Group 'B' is dropped: it was claimed with priority 7, and this document claims it with none"));
}

}  // namespace
}  // namespace korlo::settings::server
