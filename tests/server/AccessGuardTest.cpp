#include "server/AccessGuard.h"

#include <cstddef>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>

#include "support/Documents.h"
#include "support/FakeAccess.h"
#include "support/Selection.h"

namespace korlo::settings::server
{
namespace
{

using testing::ElementsAre;
using testing::IsEmpty;

using Refusal = std::pair<std::string, GroupNameCollection>;

FakeRights MayRead(std::vector<std::string> patterns)
{
    FakeRights rights;
    rights.read = std::move(patterns);
    return rights;
}

FakeRights MayChange(std::vector<std::string> patterns)
{
    FakeRights rights;
    rights.change = std::move(patterns);
    return rights;
}

std::string Visible(const FakeRights& rights, const std::string& text)
{
    core::IniFile settings = Ini(text);
    AccessGuard::HideUnreadable(rights, settings);
    return TextOf(settings);
}

/// What the guard answers to a read of the group of refusals alone.
core::IniFile TakeRefused(AccessGuard& guard)
{
    core::IniFile answer;
    guard.Answer(*guard.GetRights(), MatcherOf({AccessGuard::RefusedGroup}), answer);
    return answer;
}

TEST(FakeRightsTest, APatternIsDeniedOnlyWhereItMeetsADenial)
{
    FakeRights rights = MayRead({"A*"});
    rights.deny = {"AB*"};
    EXPECT_TRUE(rights.MayReadAllOf("AC*"));
    EXPECT_FALSE(rights.MayReadAllOf("A*"));
    EXPECT_FALSE(rights.MayReadAllOf("A*C")) << "ABC";
    EXPECT_TRUE(rights.HidesAllOf("B*"));
    EXPECT_TRUE(rights.HidesAllOf("AB1*"));
    EXPECT_FALSE(rights.HidesAllOf("*B"));
}

TEST(AccessGuardTest, WithoutAnAccessObjectEverythingIsAllowed)
{
    AccessGuard guard(nullptr);
    EXPECT_TRUE(guard.GetRights()->MayReadEverything());
    EXPECT_TRUE(guard.ReadsAsAsked(*guard.GetRights(), MatcherOf({"*", AccessGuard::RefusedGroup})));
    EXPECT_TRUE(guard.AllowsMerge("merge", Ini("[A]\nk=v\n")));
    EXPECT_TRUE(guard.AllowsTestAndMerge(Ini("[A]\nk=v\n"), Ini("[B]\n")));
    EXPECT_TRUE(guard.AllowsOverwrite({"*"}, Ini("[A]\n")));
    EXPECT_TRUE(guard.AllowsRestore(MatcherOf({"*", "A"})));
    EXPECT_TRUE(TakeRefused(guard).empty());
}

TEST(AccessGuardTest, HidesEveryGroupThatMayNotBeRead)
{
    EXPECT_EQ(Visible(MayRead({"A*"}), "[A]\nk=1\n[AB]\n[B]\nk=2\n"), "[A]\nk=1\n[AB]\n");
}

TEST(AccessGuardTest, TakesAGroupsNameAsItStandsWhenItHoldsAnAsterisk)
{
    FakeRights rights = MayRead({"A*"});
    rights.deny = {"Ax"};
    EXPECT_EQ(Visible(rights, "[A*]\nk=1\n[Ax]\nk=2\n"), "[A*]\nk=1\n");
}

TEST(AccessGuardTest, HidesNothingFromWhoMayReadEverything)
{
    const std::string text = std::string("[DeviceSecure]\nk=1\n[") + ErasedGroups + "]\n7=Net/*\nx=A\n";
    EXPECT_EQ(Visible(MayRead({"*"}), text), text);
}

TEST(AccessGuardTest, NumbersTheVisibleErasedGroupsAnewInErasingOrder)
{
    const std::string record = std::string("[") + ErasedGroups + "]\n";
    EXPECT_EQ(Visible(MayRead({"A*", "K*"}), record + "1=B\n10=A1\n11=*\n2=A2\n3=B*\n9=A*\n"),
              record + "1=A2\n2=A*\n3=A1\n");
}

TEST(AccessGuardTest, LeavesTheRecordOutWhenNoEntryIsVisible)
{
    const std::string record = std::string("[") + ErasedGroups + "]\n";
    EXPECT_EQ(Visible(MayRead({"A*", "K*"}), record + "1=B\n"), "");
    EXPECT_EQ(Visible(MayRead({"A*", "K*"}), record), "");
}

TEST(AccessGuardTest, HidesTheRecordFromWhoMayNotReadIt)
{
    EXPECT_EQ(Visible(MayRead({"A*"}), std::string("[") + ErasedGroups + "]\n1=A\n"), "");
}

TEST(AccessGuardTest, ReadsAsAskedOnlyWhatNeedsNothingTakenOut)
{
    FakeAccess access(MayRead({"A*", "K*"}));
    AccessGuard guard(&access);
    const auto reads = [&](const GroupNameCollection& entries) {
        return guard.ReadsAsAsked(*guard.GetRights(), MatcherOf(entries));
    };
    EXPECT_TRUE(reads({"A", "AB"}));
    EXPECT_FALSE(reads({"A", "B"}));
    EXPECT_FALSE(reads({"A*"})) << "a pattern is not asked about";
    EXPECT_FALSE(reads({ErasedGroups})) << "its entries are";
    access.Set(MayRead({"*"}));
    EXPECT_TRUE(reads({"A", "B", "B*", ErasedGroups}));
}

TEST(AccessGuardTest, TellsOfAChangedRecordOnlyWhoMayReadEverything)
{
    EXPECT_TRUE(AccessGuard::MayHearOf(MayRead({"A*"}), "A"));
    EXPECT_FALSE(AccessGuard::MayHearOf(MayRead({"A*"}), "B"));
    EXPECT_FALSE(AccessGuard::MayHearOf(MayRead({"K*"}), ErasedGroups));
    EXPECT_TRUE(AccessGuard::MayHearOf(MayRead({"*"}), ErasedGroups));
}

TEST(AccessGuardTest, NamesEachGroupOfAMergeThatMayNotBeChanged)
{
    FakeAccess access(MayChange({"A*"}));
    AccessGuard guard(&access);
    EXPECT_TRUE(guard.AllowsMerge("merge", Ini("[A]\nk=v\n[AB]\n")));
    EXPECT_THAT(access.refusals, IsEmpty());
    EXPECT_FALSE(guard.AllowsMerge("merge nopersist", Ini("[A]\nk=v\n[B]\nk=v\n[B*]\n")));
    EXPECT_THAT(access.refusals, ElementsAre(Refusal("merge nopersist", {"B", "B*"})));
}

TEST(AccessGuardTest, DropsRestrictedGroupsBeforeItAsks)
{
    FakeAccess access(MayChange({"A"}));
    AccessGuard guard(&access);
    const core::IniFile changes = Ini("[A]\nk=v\n[DeviceSecure]\nk=v\n[KorloSettings/Trusted/Refused]\noperation=x\n");
    EXPECT_TRUE(guard.AllowsMerge("merge", changes));
    EXPECT_TRUE(guard.AllowsTestAndMerge(Ini(""), changes));
    EXPECT_TRUE(guard.AllowsOverwrite({"A"}, changes));
    EXPECT_THAT(access.refusals, IsEmpty());
}

TEST(AccessGuardTest, AnEntryIsAskedAboutAlsoWhenItNamesARestrictedGroup)
{
    // The store records what it is told to erase, whatever comes of it.
    FakeAccess access(MayChange({"A"}));
    AccessGuard guard(&access);
    EXPECT_FALSE(guard.AllowsOverwrite({"DeviceSecure"}, Ini("")));
    EXPECT_THAT(access.refusals, ElementsAre(Refusal("overwrite", {"DeviceSecure"})));
}

TEST(AccessGuardTest, ATestMustBeOfReadableGroups)
{
    FakeRights rights = MayChange({"A"});
    rights.read = {"B", "K*"};
    FakeAccess access(rights);
    AccessGuard guard(&access);
    EXPECT_TRUE(guard.AllowsTestAndMerge(Ini("[A]\nk=v\n[B]\nk=v\n"), Ini("[A]\nk=v\n")));
    EXPECT_FALSE(guard.AllowsTestAndMerge(Ini("[C]\nk=v\n[DeviceSecure]\nk=v\n"), Ini("[B]\nk=v\n")));
    EXPECT_FALSE(guard.AllowsTestAndMerge(Ini(std::string("[") + ErasedGroups + "]\n1=C\n"), Ini("")));
    EXPECT_THAT(access.refusals, ElementsAre(Refusal("test-and-merge", {"B", "C", "DeviceSecure"}),
                                             Refusal("test-and-merge", {ErasedGroups})));
}

TEST(AccessGuardTest, WhoMayChangeEverythingMayStillTestOnlyWhatItMayRead)
{
    struct WriteOnly : FakeRights
    {
        bool MayReadEverything() const override { return false; }
        bool MayRead(const std::string&) const override { return false; }
        bool MayChangeEverything() const override { return true; }
    };
    struct WriteOnlyAccess : FakeAccess
    {
        std::shared_ptr<const IAccessRights> GetRights() const override { return std::make_shared<WriteOnly>(); }
    } access;
    AccessGuard guard(&access);
    EXPECT_FALSE(guard.AllowsTestAndMerge(Ini("[A]\nk=v\n"), Ini("[B]\n")));
    EXPECT_THAT(access.refusals, ElementsAre(Refusal("test-and-merge", {"A"})));
}

TEST(AccessGuardTest, AnOverwriteNamesEntriesAndGroupsThatWereNotAllowed)
{
    FakeAccess access(MayChange({"A*"}));
    AccessGuard guard(&access);
    EXPECT_TRUE(guard.AllowsOverwrite({"A", "AB*"}, Ini("[A]\n")));
    EXPECT_FALSE(guard.AllowsOverwrite({"A*", "*", "C"}, Ini("[A]\n[D]\n[A*]\n")));
    EXPECT_THAT(access.refusals, ElementsAre(Refusal("overwrite", {"*", "C", "D"})));
}

TEST(AccessGuardTest, ARestoreNamesEntriesThatWereNotAllowed)
{
    FakeAccess access(MayChange({"A*", "K*"}));
    AccessGuard guard(&access);
    EXPECT_TRUE(guard.AllowsRestore(MatcherOf({"A", "AB*"})));
    EXPECT_FALSE(guard.AllowsRestore(MatcherOf({"A", "B", "B*", "K*"})));
    EXPECT_THAT(access.refusals, ElementsAre(Refusal("restore", {"B", "B*", "K*"})))
        << "K* would take the record of erased groups away";
}

TEST(AccessGuardTest, KeepsTheFirstRefusalUntilItIsReadByItsName)
{
    FakeAccess access(MayChange({"A"}));
    AccessGuard guard(&access);
    guard.AllowsOverwrite({"B*", "B"}, Ini(""));
    guard.AllowsMerge("merge", Ini("[C]\nk=v\n"));
    EXPECT_EQ(access.refusals.size(), 2u);

    core::IniFile byPattern;
    guard.Answer(*guard.GetRights(), MatcherOf({"*", "KorloSettings/Trusted/*"}), byPattern);
    EXPECT_TRUE(byPattern.empty());

    EXPECT_FALSE(guard.ReadsAsAsked(*guard.GetRights(), MatcherOf({AccessGuard::RefusedGroup})));
    EXPECT_EQ(TextOf(TakeRefused(guard)),
              "[KorloSettings/Trusted/Refused]\ngroup.1=B\ngroup.2=B*\noperation=overwrite\n");
    EXPECT_TRUE(TakeRefused(guard).empty());

    guard.AllowsMerge("merge", Ini("[D]\nk=v\n"));
    EXPECT_EQ(TextOf(TakeRefused(guard)), "[KorloSettings/Trusted/Refused]\ngroup.1=D\noperation=merge\n");
}

TEST(AccessGuardTest, ARefusalIsReadEvenByWhoMayReadNothingOrEverything)
{
    for (const std::vector<std::string>& read : {std::vector<std::string>(), {"*"}})
    {
        FakeAccess access(MayRead(read));
        AccessGuard guard(&access);
        guard.AllowsMerge("merge", Ini("[A]\nk=v\n"));
        EXPECT_FALSE(guard.ReadsAsAsked(*guard.GetRights(), MatcherOf({AccessGuard::RefusedGroup})));
        EXPECT_EQ(TextOf(TakeRefused(guard)), "[KorloSettings/Trusted/Refused]\ngroup.1=A\noperation=merge\n");
    }
}

core::IniFile ManyGroups(std::size_t count, std::size_t bytes)
{
    core::IniFile ini;
    for (std::size_t index = 0; index < count; ++index)
    {
        const std::string number = std::to_string(index);
        ini[number + std::string(bytes - number.size(), 'x')];
    }
    return ini;
}

TEST(AccessGuardTest, KeepsAndReportsAtMost64Names)
{
    FakeAccess access;
    AccessGuard guard(&access);
    GroupNameCollection entries;
    for (const auto& [name, values] : ManyGroups(1000, 5))
    {
        entries.insert(name);
    }
    guard.AllowsOverwrite(entries, ManyGroups(1000, 6));
    guard.AllowsMerge("merge", ManyGroups(1000, 7));
    guard.AllowsTestAndMerge(ManyGroups(1000, 8), ManyGroups(60, 9));
    guard.AllowsRestore(MatcherOf(entries));
    ASSERT_EQ(access.refusals.size(), 4u);
    for (const Refusal& refusal : access.refusals)
    {
        EXPECT_EQ(refusal.second.size(), AccessGuard::MostRefusedNames) << refusal.first;
    }
    const core::IniFile refused = TakeRefused(guard);
    EXPECT_EQ(refused[AccessGuard::RefusedGroup].size(), 65u);
    EXPECT_TRUE(refused.HasValue(AccessGuard::RefusedGroup, "group.64"));
}

TEST(AccessGuardTest, KeepsAtMost64KiBOfNames)
{
    FakeAccess access;
    AccessGuard guard(&access);
    guard.AllowsMerge("merge", ManyGroups(20, 10000));
    core::IniFile refused = TakeRefused(guard);
    EXPECT_EQ(refused[AccessGuard::RefusedGroup].size(), 1u + 6u);
    EXPECT_TRUE(refused.HasValue(AccessGuard::RefusedGroup, "group.6"));

    guard.AllowsMerge("merge", ManyGroups(1, AccessGuard::MostRefusedBytes + 1));
    EXPECT_EQ(TextOf(TakeRefused(guard)), "[KorloSettings/Trusted/Refused]\noperation=merge\n");
    guard.AllowsMerge("merge", ManyGroups(1, AccessGuard::MostRefusedBytes));
    refused = TakeRefused(guard);
    EXPECT_EQ(refused.GetValue(AccessGuard::RefusedGroup, "group.1").size(), AccessGuard::MostRefusedBytes);
}

TEST(AccessGuardTest, ANameTooLongToKeepDoesNotPushOutAShorterOne)
{
    FakeAccess access;
    AccessGuard guard(&access);
    core::IniFile changes = ManyGroups(1, AccessGuard::MostRefusedBytes + 1);
    changes["Z"];
    guard.AllowsMerge("merge", changes);
    EXPECT_EQ(TextOf(TakeRefused(guard)), "[KorloSettings/Trusted/Refused]\ngroup.1=Z\noperation=merge\n");
}

}  // namespace
}  // namespace korlo::settings::server
