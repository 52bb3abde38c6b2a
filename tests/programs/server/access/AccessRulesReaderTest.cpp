#include "access/AccessRulesReader.h"

#include <string>
#include <vector>

#include <sys/stat.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/FakeUsers.h"
#include "support/Files.h"
#include "support/TemporaryFolder.h"

namespace korlo::daemon
{
namespace
{

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

class AccessRulesReaderTest : public ::testing::Test
{
protected:
    /// Writes a rule file and reads it alone.
    AccessRulesOutcome Read(const std::string& text)
    {
        WriteFile(_path, text);
        return AccessRulesReader(_users).Read({_path});
    }

    /// What is wrong with a rule file, without its path.
    std::vector<std::string> MistakesOf(const std::string& text)
    {
        const AccessRulesOutcome outcome = Read(text);
        EXPECT_EQ(outcome.pRules == nullptr, !outcome.mistakes.empty());
        return WithoutPath(outcome.mistakes);
    }

    std::vector<std::string> WithoutPath(std::vector<std::string> messages) const
    {
        for (std::string& message : messages)
        {
            const std::size_t at = message.find(_path + ':');
            message.erase(at == std::string::npos ? 0 : at, at == std::string::npos ? 0 : _path.size() + 1);
        }
        return messages;
    }

    const TemporaryFolder _folder;
    const std::string _path = _folder.PathOf("rules.ini");
    FakeUsers _users;
};

TEST_F(AccessRulesReaderTest, ReadsEveryKeyOfARule)
{
    const AccessRulesOutcome outcome = Read("# the page\n[Access/web]\nuser = www-data, 1234\ngroup=engineers\n"
                                            "peer=unix\nread=*\nchange = Network/* , \"Time\"\n\n"
                                            "deny=Network/Secret\n");
    ASSERT_TRUE(outcome.pRules);
    EXPECT_THAT(outcome.warnings, IsEmpty());
    ASSERT_THAT(*outcome.pRules, SizeIs(1));
    const AccessRule& rule = outcome.pRules->front();
    EXPECT_EQ(rule.name, "web");
    EXPECT_EQ(rule.file, _path);
    EXPECT_EQ(rule.line, 2u);
    EXPECT_FALSE(rule.isAboutEverybody);
    EXPECT_THAT(rule.users, ElementsAre(33u, 1234u));
    EXPECT_THAT(rule.groups, ElementsAre(2000u));
    EXPECT_TRUE(rule.isAboutUnix);
    EXPECT_FALSE(rule.isAboutTcp);
    EXPECT_THAT(rule.read.patterns, ElementsAre("*"));
    EXPECT_EQ(rule.read.line, 6u);
    EXPECT_THAT(rule.change.patterns, ElementsAre("Network/*", "\"Time\"")) << "quotes are the INI text's alone";
    EXPECT_THAT(rule.deny.patterns, ElementsAre("Network/Secret"));
    EXPECT_EQ(rule.deny.line, 9u);
}

TEST_F(AccessRulesReaderTest, ARuleWithoutUserGroupAndPeerIsAboutEverybody)
{
    const AccessRulesOutcome outcome = Read("[Access/all]\nread=Clock\n");
    ASSERT_TRUE(outcome.pRules);
    const AccessRule& rule = outcome.pRules->front();
    EXPECT_TRUE(rule.isAboutEverybody && rule.isAboutTcp && rule.isAboutUnix);
}

TEST_F(AccessRulesReaderTest, BothPeersMayBeNamed)
{
    const AccessRulesOutcome outcome = Read("[Access/all]\npeer=tcp,unix\nread=Clock\n");
    ASSERT_TRUE(outcome.pRules);
    EXPECT_TRUE(outcome.pRules->front().isAboutTcp && outcome.pRules->front().isAboutUnix);
}

TEST_F(AccessRulesReaderTest, AKeyOfRightsMayBeEmptyWhereAnotherIsNot)
{
    const AccessRulesOutcome outcome = Read("[Access/all]\nread=Clock\nchange=\ndeny = \n");
    ASSERT_TRUE(outcome.pRules);
    EXPECT_THAT(outcome.pRules->front().deny.patterns, IsEmpty());
}

TEST_F(AccessRulesReaderTest, EachMistakeIsNamedWithItsLine)
{
    const struct
    {
        const char* text;
        const char* mistake;
    } rows[] = {
        {"[Access/a]\nreed=*\nread=*\n",
         "2: key 'reed' is unknown: a rule has user, group, peer, read, change and deny"},
        {"[Access/a]\nRead=*\nread=*\n",
         "2: key 'Read' is unknown: a rule has user, group, peer, read, change and deny"},
        {"[Network]\nmode=dhcp\n[Access/a]\nread=*\n",
         "1: group 'Network' is no access rule: the group of a rule is [Access/NAME]"},
        {"[Access/a]\nread=*\n[Access]\n", "3: group 'Access' is no access rule: the group of a rule is [Access/NAME]"},
        {"[Access/]\nread=*\n", "1: group 'Access/' is no access rule: the group of a rule is [Access/NAME]"},
        {"[access/a]\nread=*\n", "1: group 'access/a' is no access rule: the group of a rule is [Access/NAME]"},
        {"[Access/a]\n", "1: rule 'Access/a' says nothing: it needs read, change or deny"},
        {"\n[Access/a]\nuser=33\npeer=tcp\n", "2: rule 'Access/a' says nothing: it needs read, change or deny"},
        {"[Access/a]\nread=\n", "1: rule 'Access/a' says nothing: it needs read, change or deny"},
        {"[Access/a]\nread=*\nnonsense\n", "3: it is neither a [group] nor a key=value line"},
        {"read=*\n[Access/a]\nread=*\n", "1: it stands under no readable [group] line"},
        {"[Access/a]\nread=*\nread=Clock\n",
         "3: key 'read' stands in line 2 already: separate several entries by commas"},
        {"[Access/a]\nuser=\nread=*\n", "2: key 'user' names nobody: leave it out to mean everybody"},
        {"[Access/a]\ngroup= \nread=*\n", "2: key 'group' names nobody: leave it out to mean everybody"},
        {"[Access/a]\npeer=\nread=*\n", "2: key 'peer' names nobody: leave it out to mean everybody"},
        {"[Access/a]\npeer=udp\nread=*\n", "2: peer 'udp' is unknown: it is tcp or unix"},
        {"[Access/a]\nread=A,,B\n", "2: key 'read' has nothing between two commas"},
        {"[Access/a]\nuser=33,\nread=A\n", "2: key 'user' has nothing between two commas"},
        {"[Access/a]\nuser=ghost\nread=*\ndeny=A\n", "2: user 'ghost' is unknown, so the rule cannot deny it anything"},
        {"[Access/a]\ndeny=A\ngroup=ghosts\n", "3: group 'ghosts' is unknown, so the rule cannot deny it anything"},
        {"[Access/a]\ndeny=A\nuser=4294967295\n",
         "3: user '4294967295' is unknown, so the rule cannot deny it anything"},
        {"[Access/a]\ndeny=A\nuser=nobody\n",
         "3: user 'nobody' is what the kernel shows for an unknown one, so the rule cannot deny it anything"},
    };
    for (const auto& row : rows)
    {
        SCOPED_TRACE(row.text);
        EXPECT_THAT(MistakesOf(row.text), ElementsAre(row.mistake));
    }
}

TEST_F(AccessRulesReaderTest, AllMistakesAreFoundAtOnce)
{
    EXPECT_THAT(MistakesOf("bad\n[Access/a]\nreed=*\nuser=ghost\ndeny=X\n[Other]\nkey=1\n[Access/b]\npeer=udp\n"),
                ElementsAre("1: it stands under no readable [group] line",
                            "3: key 'reed' is unknown: a rule has user, group, peer, read, change and deny",
                            "4: user 'ghost' is unknown, so the rule cannot deny it anything",
                            "6: group 'Other' is no access rule: the group of a rule is [Access/NAME]",
                            "9: peer 'udp' is unknown: it is tcp or unix",
                            "8: rule 'Access/b' says nothing: it needs read, change or deny"));
}

TEST_F(AccessRulesReaderTest, AnUnknownUserWhereNothingIsDeniedIsAWarningAndFitsNobody)
{
    const AccessRulesOutcome outcome = Read("[Access/a]\nuser=ghost, nobody\ngroup=ghosts,65534\nread=*\n");
    ASSERT_TRUE(outcome.pRules);
    EXPECT_THAT(WithoutPath(outcome.warnings),
                ElementsAre("2: user 'ghost' is unknown, and fits nobody",
                            "2: user 'nobody' is what the kernel shows for an unknown one, and fits nobody",
                            "3: group 'ghosts' is unknown, and fits nobody",
                            "3: group '65534' is what the kernel shows for an unknown one, and fits nobody"));
    const AccessRule& rule = outcome.pRules->front();
    EXPECT_FALSE(rule.isAboutEverybody);
    EXPECT_FALSE(rule.IsAbout({33, {33}, true}));
    EXPECT_FALSE(rule.IsAbout({65534, {65534}, true}));
    EXPECT_FALSE(rule.IsAbout({}));
}

TEST_F(AccessRulesReaderTest, DigitsAreAnIdWhetherItIsKnownOrNot)
{
    _users.users["1002"] = 77;
    const AccessRulesOutcome outcome = Read("[Access/a]\nuser=1002\ndeny=*\n");
    ASSERT_TRUE(outcome.pRules);
    EXPECT_THAT(outcome.pRules->front().users, ElementsAre(1002u));
}

TEST_F(AccessRulesReaderTest, OneRuleInTwoPlacesNamesBoth)
{
    EXPECT_THAT(MistakesOf("[Access/a]\nread=*\n[Access/a]\ndeny=B\n"),
                ElementsAre("3: rule 'Access/a' stands at " + _path + ":1 already"));

    const std::string other = _folder.PathOf("other.ini");
    WriteFile(_path, "\n[Access/a]\nread=*\n");
    WriteFile(other, "[Access/b]\nread=*\n[Access/a]\nread=*\n");
    EXPECT_THAT(AccessRulesReader(_users).Read({_path, other}).mistakes,
                ElementsAre(other + ":3: rule 'Access/a' stands at " + _path + ":2 already"));
    EXPECT_THAT(AccessRulesReader(_users).Read({_path, _path}).mistakes,
                ElementsAre(_path + ":2: rule 'Access/a' stands at " + _path + ":2 already"));
}

TEST_F(AccessRulesReaderTest, ReadsTheFilesOfAFolderAndNoOthers)
{
    WriteFile(_folder.PathOf("10-a.ini"), "[Access/a]\nread=*\n");
    WriteFile(_folder.PathOf("20-b.ini"), "[Access/b]\nread=*\n");
    WriteFile(_folder.PathOf(".hidden.ini"), "nonsense");
    WriteFile(_folder.PathOf("30-c.ini.dpkg-old"), "nonsense");
    const AccessRulesOutcome outcome = AccessRulesReader(_users).Read({_folder.GetPath()});
    ASSERT_TRUE(outcome.pRules);
    ASSERT_THAT(*outcome.pRules, SizeIs(2));
    EXPECT_EQ(outcome.pRules->at(1).file, _folder.PathOf("20-b.ini"));
}

TEST_F(AccessRulesReaderTest, NoRuleAtAllIsAMistakeThatNamesThePaths)
{
    const std::string folder = _folder.PathOf("access.d");
    ASSERT_EQ(::mkdir(folder.c_str(), 0700), 0);
    EXPECT_THAT(AccessRulesReader(_users).Read({folder}).mistakes,
                ElementsAre("There is no access rule in '" + folder + "': without one nobody could do anything"));
    for (const char* text : {"", "# nothing\n", "\xEF\xBB\xBF\n\n"})
    {
        WriteFile(_path, text);
        EXPECT_THAT(AccessRulesReader(_users).Read({_path, folder}).mistakes,
                    ElementsAre("There is no access rule in '" + _path + "', '" + folder +
                                "': without one nobody could do anything"));
    }
}

TEST_F(AccessRulesReaderTest, WhatCannotBeReadIsNamedWithTheReasonAndTheRestIsStillLookedAt)
{
    const std::string missing = _folder.PathOf("missing.ini");
    const std::string within = _folder.PathOf("within.ini");
    const std::string large = _folder.PathOf("large.ini");
    ASSERT_EQ(::mkdir(within.c_str(), 0700), 0);
    WriteFile(large, std::string(10'000'000, '\n'));
    WriteFile(_path, "[Access/a]\nreed=*\nread=*\n");
    EXPECT_THAT(AccessRulesReader(_users).Read({missing, _folder.GetPath()}).mistakes,
                ElementsAre("Failed to open '" + missing + "': No such file or directory",
                            "Failed to read '" + large + "': it holds more than 1048576 bytes",
                            _path + ":2: key 'reed' is unknown: a rule has user, group, peer, read, change and deny",
                            "Failed to read '" + within + "': Is a directory"));
}

TEST_F(AccessRulesReaderTest, AFileThatMayNotBeReadIsNamedWithTheReason)
{
    // Nobody may read it, not even user 0: a loop of links.
    const std::string loop = _folder.PathOf("loop.ini");
    ASSERT_EQ(::symlink(loop.c_str(), loop.c_str()), 0);
    EXPECT_THAT(AccessRulesReader(_users).Read({_folder.GetPath()}).mistakes,
                ElementsAre("Failed to open '" + loop + "': Too many levels of symbolic links"));
}

TEST_F(AccessRulesReaderTest, ManyMistakesAreSummedUp)
{
    std::string text = "[Access/a]\nread=*\n";
    for (std::size_t i = 0; i < AccessRulesReader::MostMessages + 7; ++i)
    {
        text += "bad\n";
    }
    const std::vector<std::string> mistakes = MistakesOf(text);
    ASSERT_THAT(mistakes, SizeIs(AccessRulesReader::MostMessages + 1));
    EXPECT_EQ(mistakes.back(), "and 7 more");
}

}  // namespace
}  // namespace korlo::daemon
