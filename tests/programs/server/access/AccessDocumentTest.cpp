// docs/access.md says what is so.

#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "access/AccessControl.h"
#include "access/AccessRulesReader.h"
#include "access/GroupPatterns.h"
#include "support/FakeUsers.h"
#include "support/Files.h"
#include "support/TemporaryFolder.h"

namespace korlo::daemon
{
namespace
{

using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

using Reason = AccessDecision::Reason;
using Row = std::vector<std::string>;  // the cells of a line of a table

/// A set of rules, and what the document says of it.
struct Example
{
    std::string heading;
    std::string rules;
    std::vector<Row> statements;
};

std::string Document()
{
    return ContentOf(std::string(KORLO_DOCS) + "/access.md").value();
}

std::string WithoutBackquotes(const std::string& cell)
{
    const bool isQuoted = cell.size() >= 2 && cell.starts_with('`') && cell.ends_with('`');
    return isQuoted ? cell.substr(1, cell.size() - 2) : cell;
}

Row CellsOf(const std::string& line)
{
    Row cells;
    std::size_t begin = 2;
    for (std::size_t end = line.find(" |", begin); end != std::string::npos; end = line.find(" |", begin))
    {
        cells.push_back(WithoutBackquotes(line.substr(begin, end - begin)));
        begin = end + 3;
    }
    return cells;
}

/// The rows of the tables whose heading begins so, one vector for each table.
std::vector<Row> RowsBelow(std::istream& lines, const std::string& heading)
{
    std::vector<Row> rows;
    std::string line;
    while (std::getline(lines, line) && !line.starts_with("| " + heading))
    {
    }
    std::getline(lines, line);  // the dashes
    while (std::getline(lines, line) && line.starts_with('|'))
    {
        rows.push_back(CellsOf(line));
    }
    return rows;
}

std::vector<Example> Examples()
{
    std::vector<Example> examples;
    std::istringstream lines(Document());
    std::string heading;
    for (std::string line; std::getline(lines, line);)
    {
        if (line.starts_with("## "))
        {
            heading = line.substr(3);
        }
        else if (line == "```ini")
        {
            Example& example = examples.emplace_back();
            example.heading = heading;
            while (std::getline(lines, line) && line != "```")
            {
                example.rules += line + '\n';
            }
            example.statements = RowsBelow(lines, "client |");
        }
    }
    return examples;
}

/// The accounts of the document's device.
FakeUsers Accounts()
{
    FakeUsers accounts;
    accounts.users = {{"root", 0}, {"www-data", 33}, {"display", 501}, {"sensor", 502}, {"technician", 1000}};
    accounts.groups = {{"root", 0}, {"www-data", 33}, {"device-programs", 500}, {"service", 600}, {"users", 100}};
    accounts.groupsOf = {{0, {0}}, {33, {33}}, {501, {501, 500}}, {502, {502, 500}}, {1000, {100, 600}}};
    return accounts;
}

std::string DecidedBy(const AccessDecision& decision)
{
    const std::map<Reason, std::string> texts = {{Reason::Privileged, "everything"},
                                                 {Reason::NotAllowed, "no rule"},
                                                 {Reason::Restricted, "restricted"},
                                                 {Reason::ErasedRecord, "the record of erased groups"}};
    const auto text = texts.find(decision.reason);
    return text == texts.end() ? decision.rule : text->second;
}

std::shared_ptr<const AccessRules> RulesOf(const Example& example, const FakeUsers& accounts)
{
    const TemporaryFolder folder;
    const std::string path = folder.PathOf("rules.ini");
    WriteFile(path, example.rules);
    const AccessRulesOutcome outcome = AccessRulesReader(accounts).Read({path});
    EXPECT_THAT(outcome.mistakes, IsEmpty());
    EXPECT_THAT(outcome.warnings, IsEmpty());
    return outcome.pRules;
}

}  // namespace

TEST(AccessDocumentTest, EachRuleSetDecidesAsTheTableBesideItSays)
{
    const FakeUsers accounts = Accounts();
    const std::vector<Example> examples = Examples();
    ASSERT_THAT(examples, SizeIs(3));
    for (const Example& example : examples)
    {
        SCOPED_TRACE(example.heading);
        AccessControl control(RulesOf(example, accounts), std::nullopt);
        EXPECT_GE(example.statements.size(), 9u);
        for (const Row& row : example.statements)
        {
            ASSERT_THAT(row, SizeIs(5));
            SCOPED_TRACE(row[0] + ' ' + row[1] + ' ' + row[2]);
            const auto client = row[0] == "TCP" ? ClientIdentity() : IdentityOf(row[0], accounts);
            ASSERT_TRUE(client);
            const AccessKind kind = row[1] == "read" ? AccessKind::Read : AccessKind::Change;
            const AccessDecision decision = control.Explain(*client, kind, row[2]);
            EXPECT_EQ(decision.isAllowed ? "yes" : "no", row[3]);
            EXPECT_EQ(DecidedBy(decision), row[4]);
            if (decision.reason != Reason::Restricted)
            {
                const auto pRights = ClientAccess(control, *client, "x").GetRights();
                EXPECT_EQ(kind == AccessKind::Read ? pRights->MayReadAllOf(row[2]) : pRights->MayChangeAllOf(row[2]),
                          decision.isAllowed);
            }
        }
    }
}

TEST(AccessDocumentTest, PatternsCoverAndMeetAsTheTableSays)
{
    std::istringstream lines(Document());
    const std::vector<Row> rows = RowsBelow(lines, "entry of a rule |");
    EXPECT_THAT(rows, SizeIs(9));
    for (const Row& row : rows)
    {
        ASSERT_THAT(row, SizeIs(4));
        EXPECT_EQ(Covers(row[0], row[1]) ? "yes" : "no", row[2]) << row[0] << ' ' << row[1];
        EXPECT_EQ(Meet(row[0], row[1]) ? "yes" : "no", row[3]) << row[0] << ' ' << row[1];
    }
}

TEST(AccessDocumentTest, TheBoundOfAFileIsTold)
{
    EXPECT_EQ(AccessRulesReader::MostBytesOfAFile, 1024u * 1024);
    EXPECT_THAT(Document(), HasSubstr("a file of more than 1 MiB"));
}

}  // namespace korlo::daemon
