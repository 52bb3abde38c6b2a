#include "settings/server/IClientAccess.h"

#include <gtest/gtest.h>

namespace korlo::settings::server
{

TEST(FullAccessTest, MayDoEverything)
{
    FullAccess access;
    const auto pRights = access.GetRights();
    ASSERT_TRUE(pRights);
    EXPECT_TRUE(pRights->MayReadEverything());
    EXPECT_TRUE(pRights->MayRead("DeviceSecure"));
    EXPECT_TRUE(pRights->MayReadAllOf("*"));
    EXPECT_TRUE(pRights->MayChangeEverything());
    EXPECT_TRUE(pRights->MayChange(""));
    EXPECT_TRUE(pRights->MayChangeAllOf("*"));
    access.OnRefused("merge", {"A"});
    EXPECT_EQ(access.GetRights(), pRights);
    EXPECT_EQ(pRights.use_count(), 0) << "it is not counted";
}

}  // namespace korlo::settings::server
