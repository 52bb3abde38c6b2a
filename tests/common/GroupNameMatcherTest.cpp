#include "settings/common/GroupNameMatcher.h"

#include <algorithm>
#include <iterator>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/Documents.h"
#include "support/Selection.h"

namespace korlo::settings::common
{
namespace
{

using core::IniFile;

IniFile WithEmptyGroups(const GroupNameCollection& names)
{
    IniFile ini;
    for (const std::string& name : names)
    {
        ini[name];
    }
    return ini;
}

/// What the matcher selects from the names; the same from a document of those groups, or the test fails.
GroupNameCollection Selected(const GroupNameMatcher& matcher, const GroupNameCollection& groups)
{
    GroupNameCollection fromNames;
    matcher.GetMatchingGroups(groups, fromNames);
    GroupNameCollection fromDocument;
    matcher.GetMatchingGroups(WithEmptyGroups(groups), fromDocument);
    EXPECT_EQ(fromNames, fromDocument);
    EXPECT_EQ(matcher.SelectsAny(groups), !fromNames.empty());
    return fromNames;
}

/// The groups that SerializeIni writes.
GroupNameCollection Written(const GroupNameMatcher& matcher, const GroupNameCollection& groups)
{
    std::ostringstream out;
    matcher.SerializeIni(out, WithEmptyGroups(groups));
    GroupNameCollection written;
    for (const auto& [name, values] : Ini(out.str()))
    {
        written.insert(name);
    }
    return written;
}

TEST(GroupNameMatcherTest, AnEntryIsAPatternExactlyWhenItHoldsAStar)
{
    const GroupNameMatcher matcher = MatcherOf({"Audio", "Audio/*", "A?", "[a-z]", "", "*", "a*b"});
    EXPECT_EQ(matcher.GetNames(), (GroupNameCollection{"", "A?", "Audio", "[a-z]"}));
    EXPECT_EQ(matcher.GetPatterns(), (GroupNameCollection{"*", "Audio/*", "a*b"}));
}

TEST(GroupNameMatcherTest, AddingTheSameEntryTwiceLeavesOne)
{
    GroupNameMatcher matcher;
    for (int i = 0; i < 2; ++i)
    {
        matcher.AddNameOrPattern("Audio");
        matcher.AddNameOrPattern("Audio/*");
    }
    EXPECT_EQ(matcher.GetNames(), (GroupNameCollection{"Audio"}));
    EXPECT_EQ(matcher.GetPatterns(), (GroupNameCollection{"Audio/*"}));
}

TEST(GroupNameMatcherTest, AnEmptyMatcherSelectsAndWritesNothing)
{
    const GroupNameMatcher matcher;
    EXPECT_TRUE(matcher.IsEmpty());
    EXPECT_EQ(Selected(matcher, {"", "Audio", "Net"}), GroupNameCollection());
    EXPECT_EQ(Written(matcher, {"", "Audio", "Net"}), GroupNameCollection());
}

TEST(GroupNameMatcherTest, UnknownNamesSelectNothing)
{
    EXPECT_EQ(Selected(MatcherOf({"Video", "Audio "}), {"Audio", "Net"}), GroupNameCollection());
    EXPECT_EQ(Selected(MatcherOf({"Video"}), {}), GroupNameCollection());
}

TEST(GroupNameMatcherTest, MergeIsTheUnionOfNamesAndOfPatterns)
{
    GroupNameMatcher matcher = MatcherOf({"A", "P*"});
    matcher.Merge(MatcherOf({"A", "B", "P*", "Q*"}));
    EXPECT_EQ(matcher.GetNames(), (GroupNameCollection{"A", "B"}));
    EXPECT_EQ(matcher.GetPatterns(), (GroupNameCollection{"P*", "Q*"}));

    matcher.Merge(matcher);
    EXPECT_EQ(matcher.GetNames(), (GroupNameCollection{"A", "B"}));
}

TEST(GroupNameMatcherTest, CopiesShareNothing)
{
    const GroupNameMatcher matcher = MatcherOf({"A"});
    GroupNameMatcher copy = matcher;
    copy.AddNameOrPattern("B*");
    EXPECT_TRUE(matcher.GetPatterns().empty());
    EXPECT_FALSE(copy.GetPatterns().empty());
}

TEST(GroupNameMatcherTest, AStarAloneSelectsEveryGroup)
{
    const GroupNameCollection groups = {"", "Audio", "Net/Eth0", "\xFF"};
    EXPECT_EQ(Selected(MatcherOf({"*"}), groups), groups);
    EXPECT_EQ(Written(MatcherOf({"*"}), groups), groups);
}

TEST(GroupNameMatcherTest, PatternSelectsOnlyWhatItsTailAllows)
{
    EXPECT_EQ(Selected(MatcherOf({"Net*Config"}), {"Audio", "NetConfig", "NetWifi", "NetWifiConfig", "XNetConfig"}),
              (GroupNameCollection{"NetConfig", "NetWifiConfig"}));
}

TEST(GroupNameMatcherTest, AStarStandsForAnyRunAndEverythingElseForItself)
{
    EXPECT_EQ(Selected(MatcherOf({"a?/*"}), {"ab/c", "a?/", "a?/x/y"}), (GroupNameCollection{"a?/", "a?/x/y"}));
    EXPECT_EQ(Selected(MatcherOf({"*/*/x"}), {"a/x", "a/b/x", "//x"}), (GroupNameCollection{"a/b/x", "//x"}));
    EXPECT_EQ(Selected(MatcherOf({"Net*"}), {"net", "Net"}), (GroupNameCollection{"Net"}));
}

TEST(GroupNameMatcherTest, NamesAreComparedByBytesZeroBytesIncluded)
{
    const std::string withZero("a\0b", 3);
    EXPECT_EQ(Selected(MatcherOf({withZero}), {"a", withZero}), (GroupNameCollection{withZero}));
    EXPECT_EQ(Selected(MatcherOf({std::string("a\0*", 3)}), {"a", withZero}), (GroupNameCollection{withZero}));
    EXPECT_EQ(Selected(MatcherOf({"\xE9*"}), {"\xE9t\xE9", "e"}), (GroupNameCollection{"\xE9t\xE9"}));
}

TEST(GroupNameMatcherTest, AGroupSelectedByNameAndByPatternIsAddedOnce)
{
    EXPECT_EQ(Selected(MatcherOf({"Audio", "A*", "*o"}), {"Audio"}), (GroupNameCollection{"Audio"}));
}

TEST(GroupNameMatcherTest, ResultsAccumulateInTheOutput)
{
    GroupNameCollection matched = {"kept"};
    MatcherOf({"A"}).GetMatchingGroups(GroupNameCollection{"A", "B"}, matched);
    MatcherOf({"C*"}).GetMatchingGroups(WithEmptyGroups({"Cc", "D"}), matched);
    EXPECT_EQ(matched, (GroupNameCollection{"A", "Cc", "kept"}));
}

TEST(GroupNameMatcherTest, SerializeIniWritesTheGroupsAsTheDocumentDoes)
{
    const IniFile ini = Ini("[a]\nx=1\n[b]\ny= 2\n[c]\n");
    std::ostringstream expected;
    ini.SaveGroupToStream(expected, "a");
    ini.SaveGroupToStream(expected, "c");

    std::ostringstream out;
    MatcherOf({"a", "c*"}).SerializeIni(out, ini);
    EXPECT_EQ(out.str(), expected.str());
}

TEST(GroupNameMatcherTest, SerializeIniWritesNamesThatAreMetInStep)
{
    EXPECT_EQ(Written(MatcherOf({"a", "b"}), {"a", "b"}), (GroupNameCollection{"a", "b"}));
    EXPECT_EQ(Written(MatcherOf({"A", "b"}), {"b"}), (GroupNameCollection{"b"}));
}

// Meant: readers of this text rely on what it leaves out, and the selection proper is GetMatchingGroups.
TEST(GroupNameMatcherTest, SerializeIniLeavesOutANameThatItPassedOverForAnEarlierGroup)
{
    const GroupNameMatcher matcher = MatcherOf({"b"});
    EXPECT_EQ(Selected(matcher, {"a", "b"}), (GroupNameCollection{"b"}));
    EXPECT_EQ(Written(matcher, {"a", "b"}), GroupNameCollection());
    EXPECT_EQ(Written(MatcherOf({"b", "c"}), {"a", "b", "c"}), GroupNameCollection());
}

TEST(GroupNameMatcherTest, SerializeIniWritesAPassedOverNameIfAPatternSelectsIt)
{
    EXPECT_EQ(Written(MatcherOf({"b", "b*"}), {"a", "b"}), (GroupNameCollection{"b"}));
}

// A plain second way to the same answers.

bool NaivelyMatches(const std::string& pattern, const std::string& text)
{
    if (pattern.empty())
    {
        return text.empty();
    }
    const std::string rest = pattern.substr(1);
    if (pattern[0] != '*')
    {
        return !text.empty() && text[0] == pattern[0] && NaivelyMatches(rest, text.substr(1));
    }
    return NaivelyMatches(rest, text) || (!text.empty() && NaivelyMatches(pattern, text.substr(1)));
}

bool IsPattern(const std::string& entry)
{
    return entry.find('*') != std::string::npos;
}

bool NaivelySelected(const GroupNameCollection& entries, const std::string& group)
{
    return std::any_of(entries.begin(), entries.end(), [&group](const std::string& entry) {
        return IsPattern(entry) ? NaivelyMatches(entry, group) : entry == group;
    });
}

GroupNameCollection NaivelySelected(const GroupNameCollection& entries, const GroupNameCollection& groups)
{
    GroupNameCollection selected;
    for (const std::string& group : groups)
    {
        if (NaivelySelected(entries, group))
        {
            selected.insert(group);
        }
    }
    return selected;
}

/// Each group takes names off the front of the list until one is not less than the group.
GroupNameCollection NaivelyWritten(const GroupNameCollection& entries, const GroupNameCollection& groups)
{
    std::vector<std::string> names;
    GroupNameCollection patterns;
    for (const std::string& entry : entries)
    {
        if (IsPattern(entry))
        {
            patterns.insert(entry);
        }
        else
        {
            names.push_back(entry);
        }
    }
    GroupNameCollection written = NaivelySelected(patterns, groups);
    for (const std::string& group : groups)
    {
        std::string taken;
        bool any = false;
        while (!names.empty() && (!any || taken < group))
        {
            taken = names.front();
            any = true;
            names.erase(names.begin());
        }
        if (any && taken == group)
        {
            written.insert(group);
        }
    }
    return written;
}

GroupNameCollection RandomNames(std::mt19937& random, const std::string& letters, unsigned int atMost)
{
    GroupNameCollection names;
    for (auto count = random() % (atMost + 1); count > 0; --count)
    {
        std::string name;
        for (auto length = random() % 6; length > 0; --length)
        {
            name += letters[random() % letters.size()];
        }
        names.insert(name);
    }
    return names;
}

TEST(GroupNameMatcherTest, AgreesWithANaiveModelOnRandomInput)
{
    for (unsigned int seed = 1; seed <= 500; ++seed)
    {
        SCOPED_TRACE("seed " + std::to_string(seed));
        std::mt19937 random(seed);
        const GroupNameCollection entries = RandomNames(random, "aab/*", 12);
        const GroupNameCollection groups = RandomNames(random, "aab/", 30);
        const GroupNameMatcher matcher = MatcherOf(entries);
        ASSERT_EQ(Selected(matcher, groups), NaivelySelected(entries, groups));
        ASSERT_EQ(Written(matcher, groups), NaivelyWritten(entries, groups));
    }
}

TEST(GroupNameMatcherInsertIteratorTest, PoursStringsIntoAMatcher)
{
    const std::vector<std::string> lines = {"Audio", "Net/*", "Audio"};
    GroupNameMatcher matcher;
    std::copy(lines.begin(), lines.end(), GroupNameMatcherInsertIterator(&matcher));
    EXPECT_EQ(matcher.GetNames(), (GroupNameCollection{"Audio"}));
    EXPECT_EQ(matcher.GetPatterns(), (GroupNameCollection{"Net/*"}));
}

TEST(GroupNameMatcherInsertIteratorTest, DereferenceAndIncrementAreTheIteratorItself)
{
    GroupNameMatcher matcher;
    GroupNameMatcherInsertIterator iterator(&matcher);
    EXPECT_EQ(&*iterator, &iterator);
    EXPECT_EQ(&++iterator, &iterator);
    *iterator++ = "A";
    EXPECT_EQ(matcher.GetNames(), (GroupNameCollection{"A"}));
}

TEST(GetFirstFromPairFunctorTest, CollectsTheGroupNamesOfADocument)
{
    const IniFile ini = Ini("[b]\nx=1\n[a]\n");
    GroupNameCollection names;
    std::transform(ini.begin(), ini.end(), std::inserter(names, names.end()),
                   GetFirstFromPairFunctor<std::string, IniFile::KeyValueMap>());
    EXPECT_EQ(names, (GroupNameCollection{"a", "b"}));
}

TEST(GroupNameMatcherTest, MergingMatchingGroupsTakesThemWholeAndKeepsWhatIsThere)
{
    const GroupNameMatcher matcher = MatcherOf({"A", "Net/*", "None"});
    core::IniFile into = Ini("[A]\nold=1\nx=1\n[Other]\n");
    matcher.MergeMatchingGroups(Ini("[A]\nx=2\n[B]\n[Net/1]\n[Net/2]\ny=2\n"), into);
    EXPECT_EQ(into, Ini("[A]\nold=1\nx=2\n[Net/1]\n[Net/2]\ny=2\n[Other]\n"));
}

TEST(GroupNameMatcherTest, MergingByMovingAddsWhatIsNew)
{
    GroupNameMatcher matcher = MatcherOf({"A", "B", "P*"});
    GroupNameMatcher added = MatcherOf({"B", "C", "P*", "Q*"});
    matcher.Merge(std::move(added));
    EXPECT_EQ(matcher.GetNames(), (GroupNameCollection{"A", "B", "C"}));
    EXPECT_EQ(matcher.GetPatterns(), (GroupNameCollection{"P*", "Q*"}));
}

TEST(GroupNameMatcherTest, APatternSelectsAnyAsAMatcherOfItWould)
{
    const GroupNameCollection groups{"A", "Net/1", "Net/2/x"};
    for (const std::string pattern : {"*", "A*", "B*", "*x", "Net/*/x", "Net/*/y", "*1*2"})
    {
        EXPECT_EQ(GroupNameMatcher::PatternSelectsAny(pattern, groups), MatcherOf({pattern}).SelectsAny(groups))
            << pattern;
    }
}

TEST(GroupNameMatcherTest, TheNamesOfADocumentAreThoseOfAllItsGroups)
{
    EXPECT_EQ(GroupNamesOf(Ini("[B]\nx=1\n[A]\n")), (GroupNameCollection{"A", "B"}));
    EXPECT_EQ(GroupNamesOf(core::IniFile()), GroupNameCollection());
}

}  // namespace
}  // namespace korlo::settings::common
