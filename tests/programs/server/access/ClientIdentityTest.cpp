// Who a client is, and what the system's own database says about users.

#include "access/ClientIdentity.h"

#include <algorithm>

#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "access/SystemUserDatabase.h"
#include "support/FakeUsers.h"

namespace korlo::daemon
{
namespace
{

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

}  // namespace

TEST(ClientIdentityTest, ANameIsLookedUpAndDigitsAreAnId)
{
    const FakeUsers users;
    EXPECT_EQ(UserIdOf("www-data", users), 33u);
    EXPECT_EQ(UserIdOf("4711", users), 4711u);
    EXPECT_EQ(GroupIdOf("engineers", users), 2000u);
    EXPECT_EQ(GroupIdOf("0", users), 0u);
}

TEST(ClientIdentityTest, AnUnknownNameAndAnImpossibleNumberAreNobody)
{
    const FakeUsers users;
    for (const char* text :
         {"ghost", "", " 33", "-1", "+33", "33x", "4294967295", "4294967296", "99999999999999999999"})
    {
        EXPECT_FALSE(UserIdOf(text, users)) << text;
        EXPECT_FALSE(GroupIdOf(text, users)) << text;
        EXPECT_FALSE(IdentityOf(text, users)) << text;
    }
}

TEST(ClientIdentityTest, AUserComesWithAllGroupsThatTheDatabaseGivesIt)
{
    const FakeUsers users;
    const auto identity = IdentityOf("service", users);
    ASSERT_TRUE(identity);
    EXPECT_EQ(identity->user, 1001u);
    EXPECT_THAT(identity->groups, ElementsAre(1001u, 2000u));
    EXPECT_TRUE(identity->isUnix);
    EXPECT_THAT(IdentityOf("4711", users)->groups, IsEmpty());
}

TEST(SystemUserDatabaseTest, KnowsUserAndGroupZero)
{
    const SystemUserDatabase users;
    EXPECT_EQ(users.FindUser(::getpwuid(0)->pw_name), 0u);
    EXPECT_EQ(users.FindGroup(::getgrgid(0)->gr_name), 0u);
    EXPECT_THAT(users.GetGroupsOf(0), Contains(::getpwuid(0)->pw_gid));
}

TEST(SystemUserDatabaseTest, KnowsNobodyOfAnotherName)
{
    const SystemUserDatabase users;
    EXPECT_FALSE(users.FindUser("no-such-user-here"));
    EXPECT_FALSE(users.FindGroup("no-such-group-here"));
    EXPECT_FALSE(users.FindUser(""));
    EXPECT_FALSE(users.FindUser(std::string(100'000, 'x')));
    EXPECT_THAT(users.GetGroupsOf(3'999'999'999u), IsEmpty());
}

TEST(SystemUserDatabaseTest, KnowsTheOverflowIdsOfTheKernel)
{
    const SystemUserDatabase users;
    EXPECT_NE(users.GetOverflowUser(), 0u);
    EXPECT_NE(users.GetOverflowGroup(), 0u);
}

}  // namespace korlo::daemon
