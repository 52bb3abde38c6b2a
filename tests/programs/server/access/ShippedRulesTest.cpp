// The rules that are shipped keep what clients of 1.0 could do.

#include <optional>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "access/AccessControl.h"
#include "access/AccessRulesReader.h"
#include "support/FakeUsers.h"

namespace korlo::daemon
{
namespace
{

using testing::IsEmpty;

/// A device on which `display` may open the socket and `www-data` may not.
FakeUsers Accounts()
{
    FakeUsers accounts;
    accounts.users = {{"display", 501}, {"www-data", 33}};
    accounts.groups = {{"korlo-settings", 995}, {"www-data", 33}};
    accounts.groupsOf = {{501, {501, 995}}, {33, {33}}};
    return accounts;
}

class ShippedRulesTest : public testing::Test
{
protected:
    bool May(const ClientIdentity& client, AccessKind kind, const std::string& nameOrPattern) const
    {
        return AccessControl(outcome.pRules, std::nullopt).Explain(client, kind, nameOrPattern).isAllowed;
    }

    const FakeUsers accounts = Accounts();
    const AccessRulesOutcome outcome = AccessRulesReader(accounts).Read({std::string(KORLO_PACKAGING) + "/access.d"});
};

TEST_F(ShippedRulesTest, AreWithoutAMistake)
{
    EXPECT_THAT(outcome.mistakes, IsEmpty());
    EXPECT_THAT(outcome.warnings, IsEmpty());
}

TEST_F(ShippedRulesTest, LetTcpAndTheGroupOfTheSocketDoWhatTheyCouldBefore)
{
    for (const ClientIdentity& client : {ClientIdentity(), IdentityOf("display", accounts).value()})
    {
        EXPECT_TRUE(May(client, AccessKind::Read, "DeviceSecure"));
        EXPECT_TRUE(May(client, AccessKind::Read, "*"));
        EXPECT_TRUE(May(client, AccessKind::Change, "*"));
        EXPECT_TRUE(May(client, AccessKind::Change, "KorloSettings/Data/DeletedGroups"));
    }
}

TEST_F(ShippedRulesTest, LetNobodyElseDoAnything)
{
    const ClientIdentity client = IdentityOf("www-data", accounts).value();
    EXPECT_FALSE(May(client, AccessKind::Read, "Audio"));
    EXPECT_FALSE(May(client, AccessKind::Change, "Audio"));
}

TEST_F(ShippedRulesTest, StopNoDeviceThatLacksTheGroup)
{
    const FakeUsers none;
    const AccessRulesOutcome without = AccessRulesReader(none).Read({std::string(KORLO_PACKAGING) + "/access.d"});
    EXPECT_NE(without.pRules, nullptr);
    EXPECT_THAT(without.warnings, testing::SizeIs(1));
}

}  // namespace
}  // namespace korlo::daemon
