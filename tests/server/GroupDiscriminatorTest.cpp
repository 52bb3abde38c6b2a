#include "settings/server/GroupDiscriminator.h"

#include <string>

#include <gtest/gtest.h>

#include "support/Documents.h"

namespace korlo::settings::server
{
namespace
{

using core::IniFile;

TEST(GroupDiscriminatorTest, ANameIsRestrictedWhenItContainsSecureOrTrusted)
{
    for (const std::string name : {"Secure", "Trusted", "Device/Secure", "NetworkSecureKeys", "Trusted/Certs",
                                   "AppTrustedList", "Keys/Secure/Store", "TrustedApps", "InSecure", "SSecure",
                                   "SecurSecure", "TrusteTrusted", "SecureTrusted", "Secured"})
    {
        EXPECT_TRUE(GroupDiscriminator::IsRestrictedGroup(name)) << name;
    }
    EXPECT_TRUE(GroupDiscriminator::IsRestrictedGroup(std::string("a\0Secure", 8)));
}

TEST(GroupDiscriminatorTest, ANameIsUnrestrictedWithoutExactlyTheseLetters)
{
    for (const std::string name : {"", "secure", "Insecure", "TRUSTED", "secureboot", "trusted", "SECURE", "Secur",
                                   "Truste", "S/ecure", "Securities", "Trust", "Sec ure"})
    {
        EXPECT_FALSE(GroupDiscriminator::IsRestrictedGroup(name)) << name;
    }
}

TEST(GroupDiscriminatorTest, MergingTakesTheUnrestrictedGroupsAndLeavesTheSource)
{
    const IniFile source = Ini("[A]\nx=new\n[Empty]\n[SecureX]\nk=v\n[TrustedY]\nk=v\n[Plain]\nSecure=1\nk=Trusted\n");
    const IniFile before = source;
    IniFile target = Ini("[A]\nx=old\ny=kept\n[B]\nz=kept\n");
    GroupDiscriminator::MergeUnrestrictedGroups(target, source);
    EXPECT_EQ(target, Ini("[A]\nx=new\ny=kept\n[B]\nz=kept\n[Empty]\n[Plain]\nSecure=1\nk=Trusted\n"));
    EXPECT_EQ(source, before);
}

TEST(GroupDiscriminatorTest, MergingOnlyRestrictedGroupsLeavesTheTargetUnchanged)
{
    IniFile target = Ini("[A]\nx=1\n");
    GroupDiscriminator::MergeUnrestrictedGroups(target, Ini("[SecureX]\nk=v\n[TrustedY]\nk=v\n"));
    EXPECT_EQ(target, Ini("[A]\nx=1\n"));
}

TEST(GroupDiscriminatorTest, FilteringNamesKeepsTheUnrestrictedOnes)
{
    GroupNameCollection names = {"A", "Device/Secure", "SecureX", "TrustedY", "secure"};
    GroupDiscriminator::FilterOutRestrictedGroups(names);
    EXPECT_EQ(names, (GroupNameCollection{"A", "secure"}));
}

TEST(GroupDiscriminatorTest, FilteringADocumentRemovesRestrictedGroupsWithAllTheirKeys)
{
    IniFile ini = Ini("[A]\nx=1\n[SecureX]\na=1\nb=2\nc=3\n[SecureY]\n[TrustedY]\nk=v\n[Z]\nSecure=kept\n");
    GroupDiscriminator::FilterOutRestrictedGroups(ini);
    EXPECT_EQ(ini, Ini("[A]\nx=1\n[Z]\nSecure=kept\n"));
}

TEST(GroupDiscriminatorTest, FilteringWhatIsEmptyLeavesItEmpty)
{
    GroupNameCollection names;
    GroupDiscriminator::FilterOutRestrictedGroups(names);
    EXPECT_TRUE(names.empty());

    IniFile ini;
    GroupDiscriminator::FilterOutRestrictedGroups(ini);
    GroupDiscriminator::FilterOutSecureGroups(ini);
    EXPECT_TRUE(ini.empty());
}

TEST(GroupDiscriminatorTest, FilteringSecureGroupsLeavesTrustedOnes)
{
    IniFile ini = Ini("[A]\nx=1\n[SecureX]\nk=v\n[TrustedY]\nk=v\n[TrustedSecure]\nk=v\n");
    GroupDiscriminator::FilterOutSecureGroups(ini);
    EXPECT_EQ(ini, Ini("[A]\nx=1\n[TrustedY]\nk=v\n"));
}

TEST(GroupDiscriminatorTest, FilteringMayEmptyADocument)
{
    IniFile ini = Ini("[SecureX]\n[SecureY]\n[TrustedZ]\n");
    GroupDiscriminator::FilterOutRestrictedGroups(ini);
    EXPECT_TRUE(ini.empty());
}

}  // namespace
}  // namespace korlo::settings::server
