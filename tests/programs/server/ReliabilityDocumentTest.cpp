// docs/reliability.md names tests that exist, and SECURITY.md the limits that are so.

#include <filesystem>
#include <regex>
#include <set>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ServerOptions.h"
#include "support/Files.h"

namespace korlo
{
namespace
{

namespace fs = std::filesystem;

const std::string Tree = std::string(KORLO_DOCS) + "/..";

/// Everything that the expression finds, as "SUITE.NAME" of its two groups.
std::set<std::string> FindTests(const std::string& text, const char* expression)
{
    const std::regex regex(expression);
    std::set<std::string> tests;
    for (std::sregex_iterator match(text.begin(), text.end(), regex), end; match != end; ++match)
    {
        tests.insert((*match)[1].str() + '.' + (*match)[2].str());
    }
    return tests;
}

std::set<std::string> TestsOfTheSources()
{
    std::set<std::string> tests;
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(Tree + "/tests"))
    {
        if (entry.path().extension() == ".cpp")
        {
            tests.merge(FindTests(ContentOf(entry.path().string()).value(), R"(\nTEST(?:_F|_P)?\((\w+),\s*(\w+)\))"));
        }
    }
    return tests;
}

TEST(ReliabilityDocumentTest, EveryTestThatIsNamedExists)
{
    const std::string document = ContentOf(Tree + "/docs/reliability.md").value();
    const std::set<std::string> named = FindTests(document, R"(`(\w+Test)\.(\w+)`)");
    const std::set<std::string> existing = TestsOfTheSources();
    EXPECT_GT(named.size(), 40u);
    for (const std::string& test : named)
    {
        EXPECT_TRUE(existing.contains(test)) << test;
    }
}

TEST(ReliabilityDocumentTest, EveryPromiseNamesATest)
{
    const std::regex promise(R"(\n\| [^|]+ \| ([^|]*) \|)");
    const std::string document = ContentOf(Tree + "/docs/reliability.md").value();
    int promises = 0;
    for (std::sregex_iterator match(document.begin(), document.end(), promise), end; match != end; ++match)
    {
        const std::string shownBy = (*match)[1].str();
        EXPECT_TRUE(shownBy == "shown by" || shownBy.starts_with('`')) << match->str();
        ++promises;
    }
    EXPECT_GT(promises, 30);
}

TEST(ReliabilityDocumentTest, TheSecurityDocumentGivesTheLimits)
{
    const std::string document = ContentOf(Tree + "/SECURITY.md").value();
    const daemon::ServerLimits limits;
    const auto row = [](const char* option, const std::string& value) {
        return std::string("| `") + option + "` | " + value + " |";
    };
    constexpr std::size_t mebibyte = 1024 * 1024;
    EXPECT_THAT(document, testing::HasSubstr(row("--max-clients", std::to_string(limits.maxClients))));
    EXPECT_THAT(document,
                testing::HasSubstr(row("--max-message", std::to_string(limits.maxMessage / mebibyte) + " MiB")));
    EXPECT_THAT(document,
                testing::HasSubstr(row("--max-backlog", std::to_string(limits.maxBacklog / mebibyte) + " MiB")));
}

}  // namespace
}  // namespace korlo
