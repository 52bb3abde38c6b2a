// The rules in force, and standing connections when they change.

#include "access/AccessControl.h"

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/FakeUsers.h"
#include "support/LogCapture.h"

namespace korlo::daemon
{
namespace
{

using namespace std::chrono_literals;
using Reason = AccessDecision::Reason;

constexpr uid_t Own = 990;
const ClientIdentity Tcp = {};
const ClientIdentity Web = {33, {33}, true};
const ClientIdentity Service = {1001, {1001, 2000}, true};
const ClientIdentity Nobody = {std::nullopt, {}, true};

AccessRule ReadRule(const std::string& name, const std::string& pattern)
{
    AccessRule rule;
    rule.name = name;
    rule.read = {{pattern}, 1};
    return rule;
}

AccessRule About(AccessRule rule, std::vector<uid_t> users, std::vector<gid_t> groups)
{
    rule.isAboutEverybody = false;
    rule.users = std::move(users);
    rule.groups = std::move(groups);
    return rule;
}

std::shared_ptr<const AccessRules> Share(AccessRules rules)
{
    return std::make_shared<const AccessRules>(std::move(rules));
}

/// One for everybody, one for a user or a group, one for each way to come.
std::shared_ptr<const AccessRules> Rules()
{
    AccessRule tcp = ReadRule("tcp", "OfTcp");
    tcp.isAboutUnix = false;
    AccessRule local = ReadRule("local", "OfUnix");
    local.isAboutTcp = false;
    return Share({ReadRule("all", "OfAll"), About(ReadRule("some", "OfSome"), {33}, {2000}), tcp, local});
}

std::string ReadableBy(const ClientIdentity& client, AccessControl& control)
{
    const auto pRights = ClientAccess(control, client, "x").GetRights();
    std::string text;
    for (const char* group : {"OfAll", "OfSome", "OfTcp", "OfUnix", "OfNone"})
    {
        text += pRights->MayRead(group) ? std::string(group) + ' ' : "";
    }
    return text;
}

}  // namespace

TEST(AccessControlTest, ARuleIsAboutWhomItNames)
{
    AccessControl control(Rules(), Own);
    EXPECT_EQ(ReadableBy(Tcp, control), "OfAll OfTcp ");
    EXPECT_EQ(ReadableBy(Web, control), "OfAll OfSome OfUnix ");
    EXPECT_EQ(ReadableBy(Service, control), "OfAll OfSome OfUnix ") << "by its second group";
    EXPECT_EQ(ReadableBy({34, {1, 2}, true}, control), "OfAll OfUnix ");
    EXPECT_EQ(ReadableBy(Nobody, control), "OfAll OfUnix ");
}

TEST(AccessControlTest, AClientOfUnknownGroupsIsDeniedAsAMemberAndAllowedAsNone)
{
    AccessRule both = About(ReadRule("both", "OfSome"), {}, {2000});
    both.change = {{"OfSome"}, 2};
    both.deny = {{"OfAll", "OfNone"}, 3};
    AccessRule tcp = About(ReadRule("tcp", "OfUnix"), {}, {2001});
    tcp.deny = {{"OfUnix"}, 2};
    tcp.isAboutUnix = false;
    AccessRule local = ReadRule("local", "OfUnix");
    AccessControl control(Share({ReadRule("all", "OfAll"), both, tcp, local}), Own);

    const ClientIdentity known = {33, {33}, true};
    const ClientIdentity member = {33, {33, 2000}, true};
    ClientIdentity unknown = known;
    unknown.areGroupsComplete = false;
    ClientIdentity unknownMember = member;
    unknownMember.areGroupsComplete = false;
    EXPECT_EQ(ReadableBy(known, control), "OfAll OfUnix ");
    EXPECT_EQ(ReadableBy(member, control), "OfSome OfUnix ");
    EXPECT_EQ(ReadableBy(unknown, control), "OfUnix ") << "denied what the group is denied, and allowed no more";
    EXPECT_EQ(ReadableBy(unknownMember, control), "OfSome OfUnix ") << "a group that is known counts as ever";
    EXPECT_FALSE(ClientAccess(control, unknown, "x").GetRights()->MayChange("OfSome"));
    EXPECT_EQ(control.Explain(unknown, AccessKind::Read, "OfAll").rule, "both");
    EXPECT_EQ(control.Explain(unknown, AccessKind::Read, "OfAll").line, 3u);

    ClientIdentity privileged = {Own, {}, true};
    privileged.areGroupsComplete = false;
    EXPECT_TRUE(ClientAccess(control, privileged, "x").GetRights()->MayChangeEverything());
}

TEST(AccessControlTest, UserZeroAndTheServersOwnUserMayDoEverything)
{
    AccessControl control(Rules(), Own);
    for (const uid_t user : {uid_t{0}, Own})
    {
        const auto pRights = ClientAccess(control, {user, {}, true}, "x").GetRights();
        EXPECT_TRUE(pRights->MayReadEverything() && pRights->MayChangeEverything());
        EXPECT_TRUE(pRights->MayRead("X") && pRights->MayReadAllOf("*") && pRights->MayChange("X") &&
                    pRights->MayChangeAllOf("*"));
    }
    EXPECT_EQ(ReadableBy({1, {0, Own}, true}, control), "OfAll OfUnix ") << "group 0 is nothing special";
}

TEST(AccessControlTest, WithoutAnOwnUserNobodyPassesForIt)
{
    AccessControl control(Rules(), std::nullopt);
    EXPECT_EQ(ReadableBy(Nobody, control), "OfAll OfUnix ");
    EXPECT_EQ(ReadableBy({65534, {65534}, true}, control), "OfAll OfUnix ");
}

TEST(AccessControlTest, TheOverflowUserIsNeverTheServersOwn)
{
    class OthersOverflow : public FakeUsers
    {
        uid_t GetOverflowUser() const override { return ::geteuid(); }
    };
    EXPECT_EQ(AccessControl::OwnUser(FakeUsers()), ::geteuid());
    EXPECT_EQ(AccessControl::OwnUser(OthersOverflow()), std::nullopt);
}

TEST(AccessControlTest, WithoutRulesEverybodyMayDoEverything)
{
    AccessControl control(nullptr, Own);
    EXPECT_TRUE(ClientAccess(control, Tcp, "x").GetRights()->MayChangeEverything());
    EXPECT_EQ(control.Explain(Tcp, AccessKind::Change, "X").reason, Reason::NoRules);
    EXPECT_TRUE(control.Explain(Tcp, AccessKind::Change, "X").isAllowed);
}

TEST(AccessControlTest, ClientsOfTheSameRulesShareTheirRights)
{
    AccessControl control(Rules(), Own);
    const ClientAccess web(control, Web, "x");
    const ClientAccess service(control, Service, "x");
    const ClientAccess tcp(control, Tcp, "x");
    EXPECT_EQ(web.GetRights(), service.GetRights());
    EXPECT_NE(web.GetRights(), tcp.GetRights());
    EXPECT_LT(sizeof(ClientAccess), 512u);
}

TEST(AccessControlTest, RightsGoWithTheLastClientThatHasThem)
{
    AccessControl control(Rules(), Own);
    std::weak_ptr<const settings::server::IAccessRights> pRights;
    {
        const ClientAccess web(control, Web, "x");
        pRights = web.GetRights();
        EXPECT_FALSE(pRights.expired());
    }
    EXPECT_TRUE(pRights.expired());
    EXPECT_EQ(ReadableBy(Web, control), "OfAll OfSome OfUnix ");
}

TEST(AccessControlTest, OtherRulesActAtOnceOnStandingConnections)
{
    AccessControl control(Rules(), Own);
    const ClientAccess web(control, Web, "x");
    const auto pBefore = web.GetRights();
    EXPECT_TRUE(pBefore->MayRead("OfAll"));
    control.Replace(Share({ReadRule("other", "Other")}));
    EXPECT_FALSE(web.GetRights()->MayRead("OfAll"));
    EXPECT_TRUE(web.GetRights()->MayRead("Other"));
    EXPECT_TRUE(pBefore->MayRead("OfAll")) << "a request that has begun is answered by one set of rules";
    control.Replace(nullptr);
    EXPECT_TRUE(web.GetRights()->MayReadEverything());
}

TEST(AccessControlTest, WhoWaitsForNewRulesWaitsForWhatGoesByThoseBefore)
{
    AccessControl control(Rules(), Own);
    const ClientAccess web(control, Web, "x");
    const ClientAccess idle(control, Tcp, "y");
    EXPECT_TRUE(idle.GetRights()->MayRead("OfTcp"));
    auto pBefore = web.GetRights();
    control.Replace(Share({ReadRule("other", "Other")}));
    const auto pNow = web.GetRights();
    std::future<void> awaited = std::async(std::launch::async, [&control] { control.AwaitNewRules(); });
    EXPECT_EQ(awaited.wait_for(50ms), std::future_status::timeout);
    EXPECT_TRUE(pBefore->MayRead("OfAll"));
    pBefore.reset();
    ASSERT_EQ(awaited.wait_for(30s), std::future_status::ready) << "neither an idle client nor the new rights count";
    EXPECT_TRUE(pNow->MayRead("Other"));
}

TEST(AccessControlTest, RightsOfRulesBeforeAreGoneOnceNewOnesWereAwaited)
{
    AccessControl control(Rules(), Own);
    const ClientAccess idle(control, Web, "x");
    const std::weak_ptr<const settings::server::IAccessRights> pBefore = idle.GetRights();
    control.Replace(Share({ReadRule("other", "Other")}));
    control.AwaitNewRules();
    EXPECT_TRUE(pBefore.expired());
    EXPECT_TRUE(idle.GetRights()->MayRead("Other"));
}

TEST(AccessControlTest, ARequestIsAnsweredByOneSetOfRulesWhileTheyChange)
{
    // "A" is readable under the one, "B" under the other, both under neither.
    const auto pFirst = Share({ReadRule("a", "A")});
    const auto pSecond = Share({ReadRule("b", "B")});
    AccessControl control(pFirst, Own);
    ClientAccess access(control, Web, "x");
    std::atomic<bool> hasEnded = false;
    std::vector<std::thread> threads;
    std::atomic<int> mixtures = 0;
    for (int i = 0; i < 2; ++i)
    {
        threads.emplace_back([&] {
            while (!hasEnded)
            {
                const auto pRights = access.GetRights();
                mixtures += pRights->MayRead("A") == pRights->MayRead("B") ? 1 : 0;
            }
        });
    }
    for (int i = 0; i < 500; ++i)
    {
        control.Replace(i % 2 == 0 ? pSecond : pFirst);
        const bool isSecond = i % 2 == 0;
        EXPECT_EQ(access.GetRights()->MayRead("B"), isSecond);
    }
    hasEnded = true;
    for (std::thread& thread : threads)
    {
        thread.join();
    }
    EXPECT_EQ(mixtures, 0);
}

TEST(AccessControlTest, ExplainsWhatDecides)
{
    AccessControl control(Rules(), Own);
    EXPECT_EQ(control.Explain(Web, AccessKind::Read, "OfSome").rule, "some");
    EXPECT_EQ(control.Explain(Web, AccessKind::Change, "OfSome").reason, Reason::NotAllowed);
    EXPECT_EQ(control.Explain({0, {}, true}, AccessKind::Change, "X").reason, Reason::Privileged);
    EXPECT_TRUE(control.Explain({0, {}, true}, AccessKind::Change, "X").isAllowed);
    EXPECT_EQ(control.Explain({0, {}, true}, AccessKind::Change, "DeviceSecure").reason, Reason::Restricted);
    EXPECT_TRUE(control.Explain({0, {}, true}, AccessKind::Read, "DeviceSecure").isAllowed);
}

TEST(AccessControlTest, RefusalsAreCountedAndLogged)
{
    AccessControl control(Rules(), Own);
    ClientAccess access(control, Web, "user www-data");
    const LogCapture log;
    access.OnRefused("merge", {"A", "B"});
    access.OnRefused("overwrite", {"A"});
    EXPECT_EQ(access.GetRefusals(), 2u);
    EXPECT_THAT(log.GetMessages(), ::testing::ElementsAre("4 Access: user www-data: merge of 'A' is refused",
                                                          "4 Access: user www-data: merge of 'B' is refused"));
}

}  // namespace korlo::daemon
