// What docs/ini-format.md says by example.

#include <fstream>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "korlo/core/IniFile.h"
#include "support/LogCapture.h"
#include "support/TemporaryFolder.h"

namespace korlo::core
{
namespace
{

using ::testing::IsEmpty;
using ::testing::SizeIs;

std::vector<std::string> LinesOfDocument()
{
    std::ifstream in(KORLO_DOCS_FOLDER "/ini-format.md");
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);)
    {
        lines.push_back(line);
    }
    return lines;
}

/// The texts between a line that is exactly `opening` and the next "```".
std::vector<std::string> BlocksAfter(const std::string& opening)
{
    std::vector<std::string> blocks;
    bool isInside = false;
    for (const std::string& line : LinesOfDocument())
    {
        if (isInside && line != "```")
        {
            blocks.back() += line + '\n';
        }
        else if (line == opening)
        {
            blocks.emplace_back();
            isInside = true;
        }
        else
        {
            isInside = false;
        }
    }
    return blocks;
}

/// The rows of the table of two columns of code, as pairs of what stands between the backquotes.
std::vector<std::pair<std::string, std::string>> RowsOfCode()
{
    std::vector<std::pair<std::string, std::string>> rows;
    for (const std::string& line : LinesOfDocument())
    {
        const std::size_t middle = line.find("` | `");
        if (line.starts_with("| `") && middle != std::string::npos)
        {
            rows.emplace_back(line.substr(3, middle - 3), line.substr(middle + 5, line.size() - 3 - middle - 5));
        }
    }
    return rows;
}

}  // namespace

TEST(IniFormatDocumentTest, EachExampleIsReadWithoutAWarningAndWrittenAsTheDocumentSays)
{
    const std::vector<std::string> examples = BlocksAfter("```ini");
    const std::vector<std::string> written = BlocksAfter("```ini written");
    ASSERT_THAT(examples, SizeIs(2));
    ASSERT_EQ(examples.size(), written.size());
    for (std::size_t i = 0; i < examples.size(); ++i)
    {
        LogCapture log;
        IniFile ini;
        ini.LoadFromString(examples[i]);
        EXPECT_THAT(log.GetMessages(), IsEmpty());
        std::ostringstream out;
        ini.SaveToStream(out);
        EXPECT_EQ(out.str(), written[i]);
    }
}

TEST(IniFormatDocumentTest, EachLineThatMakesNoSenseIsSkippedForTheReasonThatTheDocumentGives)
{
    const TemporaryFolder folder;
    const std::string path = folder.PathOf("bad.ini");
    const auto rows = RowsOfCode();
    ASSERT_THAT(rows, SizeIs(8));
    for (const auto& [line, reason] : rows)
    {
        SCOPED_TRACE(line);
        std::ofstream(path) << "[group]\n" << line << "\n[next]\n";
        const auto badLines = IniFile::FindBadLines(path.c_str());
        ASSERT_THAT(badLines, SizeIs(1));
        EXPECT_EQ(badLines[0].number, 2u);
        EXPECT_EQ(badLines[0].reason, reason);
    }
}

}  // namespace korlo::core
