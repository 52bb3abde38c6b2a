// What rules let a client do.

#include "access/ClientRights.h"

#include <algorithm>
#include <initializer_list>
#include <map>
#include <memory>
#include <numeric>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "korlo/core/StringUtil.h"

namespace korlo::daemon
{
namespace
{

using Reason = AccessDecision::Reason;

constexpr const char* Record = "KorloSettings/Data/DeletedGroups";

AccessRule Rule(const std::string& name, std::vector<std::string> read, std::vector<std::string> change,
                std::vector<std::string> deny)
{
    AccessRule rule;
    rule.name = name;
    rule.file = name + ".ini";
    rule.line = 1;
    rule.read = {std::move(read), 2};
    rule.change = {std::move(change), 3};
    rule.deny = {std::move(deny), 4};
    return rule;
}

std::unique_ptr<ClientRights> RightsFrom(AccessRules rules)
{
    std::vector<std::size_t> all(rules.size());
    std::iota(all.begin(), all.end(), 0);
    return std::make_unique<ClientRights>(std::make_shared<const AccessRules>(std::move(rules)),
                                          ApplicableRules{all, {}});
}

}  // namespace

TEST(ClientRightsTest, WithoutAnyRuleNothingIsAllowed)
{
    const auto pRights = RightsFrom({});
    EXPECT_FALSE(pRights->MayReadEverything());
    EXPECT_FALSE(pRights->MayChangeEverything());
    EXPECT_FALSE(pRights->MayRead("A"));
    EXPECT_FALSE(pRights->MayReadAllOf("A"));
    EXPECT_FALSE(pRights->MayChange("A"));
    EXPECT_FALSE(pRights->MayChangeAllOf("A*"));
}

TEST(ClientRightsTest, RightsAreTheUnionOfAllRulesLessAllDenials)
{
    const auto pRights = RightsFrom({Rule("a", {"Clock"}, {"Network/*"}, {}), Rule("b", {}, {"Audio"}, {"Network/Vpn"}),
                                     Rule("c", {"Network/Vpn"}, {}, {})});
    EXPECT_TRUE(pRights->MayRead("Clock"));
    EXPECT_FALSE(pRights->MayChange("Clock"));
    EXPECT_TRUE(pRights->MayRead("Network/Wifi"));
    EXPECT_TRUE(pRights->MayChange("Network/Wifi"));
    EXPECT_TRUE(pRights->MayChange("Audio"));
    EXPECT_FALSE(pRights->MayRead("Network/Vpn"));
    EXPECT_FALSE(pRights->MayChange("Network/Vpn"));
    EXPECT_FALSE(pRights->MayRead("Door"));
}

TEST(ClientRightsTest, ChangeIncludesReading)
{
    const auto pRights = RightsFrom({Rule("a", {}, {"Network/*"}, {})});
    EXPECT_TRUE(pRights->MayRead("Network/Wifi"));
    EXPECT_TRUE(pRights->MayReadAllOf("Network/W*"));
}

TEST(ClientRightsTest, EverythingIsAllowedByAStarWithoutAnyDenial)
{
    EXPECT_TRUE(RightsFrom({Rule("a", {"*"}, {}, {})})->MayReadEverything());
    EXPECT_FALSE(RightsFrom({Rule("a", {"*"}, {}, {})})->MayChangeEverything());
    EXPECT_TRUE(RightsFrom({Rule("a", {}, {"*"}, {})})->MayReadEverything());
    EXPECT_TRUE(RightsFrom({Rule("a", {}, {"*"}, {})})->MayChangeEverything());
    EXPECT_FALSE(RightsFrom({Rule("a", {}, {"*"}, {"X"})})->MayReadEverything());
    EXPECT_FALSE(RightsFrom({Rule("a", {}, {"*"}, {"X"})})->MayChangeEverything());
    EXPECT_FALSE(RightsFrom({Rule("a", {"A*", "*a"}, {}, {})})->MayReadEverything());
}

TEST(ClientRightsTest, APatternNeedsASinglePatternThatCoversIt)
{
    const auto pRights = RightsFrom({Rule("a", {"R/*"}, {"Network/*", "Audio"}, {}), Rule("b", {}, {"Net*"}, {})});
    EXPECT_TRUE(pRights->MayChangeAllOf("Network/*"));
    EXPECT_TRUE(pRights->MayChangeAllOf("Network/**"));
    EXPECT_TRUE(pRights->MayChangeAllOf("Network/W*i"));
    EXPECT_TRUE(pRights->MayChangeAllOf("Net*"));
    EXPECT_TRUE(pRights->MayChangeAllOf("Audio"));
    EXPECT_FALSE(pRights->MayChangeAllOf("Audio*"));
    EXPECT_FALSE(pRights->MayChangeAllOf("N*"));
    EXPECT_FALSE(pRights->MayChangeAllOf("*"));
    EXPECT_FALSE(pRights->MayChangeAllOf("R/*"));
    EXPECT_TRUE(pRights->MayReadAllOf("R/*"));
    EXPECT_FALSE(pRights->MayReadAllOf("*"));
}

TEST(ClientRightsTest, APatternThatMeetsADenialIsRefused)
{
    const auto pRights = RightsFrom({Rule("a", {}, {"*"}, {"Network/Vpn", "*Keys", "Boot/*"})});
    EXPECT_FALSE(pRights->MayChangeAllOf("Network/*"));
    EXPECT_FALSE(pRights->MayChangeAllOf("Network/V**n"));
    EXPECT_FALSE(pRights->MayChangeAllOf("Audio*"));
    EXPECT_TRUE(pRights->MayChangeAllOf("Audio*x"));
    EXPECT_FALSE(pRights->MayChangeAllOf("Boot*"));
    EXPECT_TRUE(pRights->MayChangeAllOf("Network/W*x"));
    EXPECT_FALSE(pRights->MayReadAllOf("Network/*"));
}

TEST(ClientRightsTest, AGroupsNameThatHoldsAnAsteriskIsNoPattern)
{
    const auto pRights = RightsFrom({Rule("a", {}, {"*"}, {"A1"})});
    EXPECT_TRUE(pRights->MayChange("A*"));
    EXPECT_TRUE(pRights->MayRead("A*"));
    EXPECT_FALSE(pRights->MayChangeAllOf("A*"));
    EXPECT_FALSE(pRights->MayReadAllOf("A*"));
}

TEST(ClientRightsTest, OnlyWhoMayChangeEverythingChangesTheRecordOfErasedGroups)
{
    const auto pSome = RightsFrom({Rule("a", {"*"}, {"KorloSettings/*", Record}, {})});
    EXPECT_TRUE(pSome->MayRead(Record));
    EXPECT_FALSE(pSome->MayChange(Record));
    EXPECT_FALSE(pSome->MayChangeAllOf(Record));
    EXPECT_FALSE(pSome->MayChangeAllOf("KorloSettings/*"));
    EXPECT_FALSE(pSome->MayChangeAllOf("KorloSettings/Data/*Groups"));
    EXPECT_TRUE(pSome->MayChangeAllOf("KorloSettings/Data/*Group"));
    EXPECT_TRUE(pSome->MayChange("KorloSettings/Data"));

    const auto pNearlyAll = RightsFrom({Rule("a", {}, {"*"}, {"X"})});
    EXPECT_FALSE(pNearlyAll->MayChange(Record));
    EXPECT_TRUE(pNearlyAll->MayChange("KorloSettings/Data/*")) << "a name, not a pattern";

    const auto pAll = RightsFrom({Rule("a", {}, {"*"}, {})});
    EXPECT_TRUE(pAll->MayChange(Record));
    EXPECT_TRUE(pAll->MayChangeAllOf("KorloSettings/*"));
}

TEST(ClientRightsTest, TheOrderOfRulesAndPatternsHasNoEffect)
{
    std::vector<AccessRule> rules = {Rule("a", {"*"}, {"N*", "A"}, {}), Rule("b", {}, {"A*"}, {"Nx", "A/*"}),
                                     Rule("c", {"Q"}, {}, {"Q*", "*z"}), Rule("d", {}, {"*"}, {})};
    const std::vector<std::string> entries = {"N",  "Nx", "N*", "A",  "A*", "A/b",  "A/*", "Q",
                                              "Qz", "Q*", "az", "b*", "*",  Record, "K*"};
    const auto answers = [&entries](const std::vector<AccessRule>& inOrder) {
        const auto pRights = RightsFrom(inOrder);
        std::string text;
        for (const std::string& entry : entries)
        {
            text += pRights->MayRead(entry) ? 'r' : '-';
            text += pRights->MayReadAllOf(entry) ? 'R' : '-';
            text += pRights->MayChange(entry) ? 'c' : '-';
            text += pRights->MayChangeAllOf(entry) ? 'C' : '-';
        }
        return text;
    };
    const std::string expected = answers(rules);
    std::sort(rules.begin(), rules.end(), [](const auto& left, const auto& right) { return left.name < right.name; });
    int permutations = 0;
    do
    {
        for (AccessRule& rule : rules)
        {
            std::reverse(rule.change.patterns.begin(), rule.change.patterns.end());
            std::reverse(rule.deny.patterns.begin(), rule.deny.patterns.end());
        }
        ASSERT_EQ(answers(rules), expected);
        ++permutations;
    } while (std::next_permutation(rules.begin(), rules.end(), [](const AccessRule& left, const AccessRule& right) {
        return left.name < right.name;
    }));
    EXPECT_EQ(permutations, 24);
}

TEST(ClientRightsTest, TheRuleThatDecidesIsNamedWithFileAndLine)
{
    const auto pRights = RightsFrom({Rule("web", {"Clock"}, {"Network/*"}, {}), Rule("safe", {}, {}, {"Network/Vpn"})});
    const AccessDecision allowed = pRights->Explain(AccessKind::Change, "Network/Wifi");
    EXPECT_TRUE(allowed.isAllowed);
    EXPECT_EQ(allowed.reason, Reason::Allowed);
    EXPECT_EQ(allowed.rule + ' ' + allowed.file + ' ' + std::to_string(allowed.line), "web web.ini 3");

    const AccessDecision denied = pRights->Explain(AccessKind::Change, "Network/Vpn");
    EXPECT_FALSE(denied.isAllowed);
    EXPECT_EQ(denied.reason, Reason::Denied);
    EXPECT_EQ(denied.rule + ' ' + denied.file + ' ' + std::to_string(denied.line), "safe safe.ini 4");

    EXPECT_EQ(pRights->Explain(AccessKind::Read, "Clock").line, 2u);
    const AccessDecision none = pRights->Explain(AccessKind::Change, "Clock");
    EXPECT_FALSE(none.isAllowed);
    EXPECT_EQ(none.reason, Reason::NotAllowed);
    EXPECT_EQ(none.rule, "");
    EXPECT_EQ(RightsFrom({Rule("a", {}, {"K*"}, {})})->Explain(AccessKind::Change, Record).reason,
              Reason::ErasedRecord);
}

TEST(ClientRightsTest, VerdictsThatAreKeptStayTrueAndBounded)
{
    const auto pRights = RightsFrom({Rule("a", {"1*"}, {"2*"}, {"*9"})});
    const std::string middle(1000, 'x');
    for (int round = 0; round < 2; ++round)
    {
        for (int number = 0; number < 4000; ++number)
        {
            const std::string group = std::to_string(number) + middle + std::to_string(number);
            const bool denied = group.ends_with('9');
            ASSERT_EQ(pRights->MayRead(group), !denied && (group.starts_with('1') || group.starts_with('2'))) << number;
            ASSERT_EQ(pRights->MayChange(group), !denied && group.starts_with('2')) << number;
        }
        EXPECT_LE(pRights->GetBytesKept(), ClientRights::MostBytesKept);
        EXPECT_GT(pRights->GetBytesKept(), 0u);
    }
}

TEST(ClientRightsTest, AnAbsurdlyLongNameIsAnsweredAndNotKept)
{
    const auto pRights = RightsFrom({Rule("a", {"x*"}, {}, {})});
    EXPECT_TRUE(pRights->MayRead(std::string(1'000'000, 'x')));
    EXPECT_FALSE(pRights->MayRead(std::string(1'000'000, 'y')));
    EXPECT_EQ(pRights->GetBytesKept(), 0u);
}

TEST(ClientRightsTest, ManyThreadsGetTheSameAnswers)
{
    const auto pRights = RightsFrom({Rule("a", {"1*"}, {"2*"}, {"*9"})});
    std::vector<std::thread> threads;
    std::vector<int> readable(4);
    for (int& count : readable)
    {
        threads.emplace_back([&pRights, &count] {
            for (int number = 0; number < 3000; ++number)
            {
                count += pRights->MayRead(std::to_string(number)) ? 1 : 0;
            }
        });
    }
    for (std::thread& thread : threads)
    {
        thread.join();
    }
    EXPECT_THAT(readable, ::testing::Each(readable.front()));
    EXPECT_EQ(readable.front(), 2000);  // 2222 begin with 1 or 2, and of those 222 end with 9
}

}  // namespace korlo::daemon
