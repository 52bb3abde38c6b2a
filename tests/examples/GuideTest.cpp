// docs/guide.md shows what is compiled and run, not a copy that has grown old.

#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/Files.h"

namespace korlo::examples
{
namespace
{

/// A block of code in the document, with the comment above it that says where it comes from.
struct Block
{
    std::size_t line;
    std::string language;
    std::string origin;  // "FollowSettings.cpp: follow", "budget.ini"; empty without such a comment
    std::string text;
};

std::vector<Block> ReadBlocks(std::istream& document)
{
    const std::string opening = "<!-- examples/";
    std::vector<Block> blocks;
    std::string above;
    bool inBlock = false;
    std::size_t number = 0;
    for (std::string line; std::getline(document, line); above = line)
    {
        ++number;
        if (inBlock && line != "```")
        {
            blocks.back().text += line + '\n';
        }
        else if (inBlock)
        {
            inBlock = false;
        }
        else if (line.starts_with("```"))
        {
            inBlock = true;
            blocks.push_back({number, line.substr(3), "", ""});
            if (above.starts_with(opening))
            {
                blocks.back().origin = above.substr(opening.size(), above.rfind(" -->") - opening.size());
            }
        }
    }
    return blocks;
}

/// The lines without the white space that the first of them starts with.
std::string Dedented(const std::vector<std::string>& lines)
{
    const std::size_t margin = lines.empty() ? 0 : lines[0].find_first_not_of(' ');
    std::string text;
    for (const std::string& line : lines)
    {
        text += (line.size() > margin ? line.substr(margin) : "") + '\n';
    }
    return text;
}

/// The marked regions of a source, from `// [NAME]` to `// [end]`.
void ReadRegions(const std::string& source, std::map<std::string, std::string>& regions)
{
    std::istringstream stream(ContentOf(std::string(KORLO_EXAMPLES) + '/' + source).value());
    std::string name;
    std::vector<std::string> lines;
    for (std::string line; std::getline(stream, line);)
    {
        const std::size_t start = line.find_first_not_of(' ');
        const bool isMark = start != std::string::npos && line.find("// [", start) == start && line.ends_with("]");
        if (!isMark)
        {
            lines.push_back(line);
            continue;
        }
        const std::string mark = line.substr(start + 4, line.size() - start - 5);
        if (mark == "end")
        {
            regions[source + ": " + name] = Dedented(lines);
        }
        EXPECT_EQ(mark == "end", !name.empty()) << source << ": regions follow one another: " << mark;
        name = mark == "end" ? "" : mark;
        lines.clear();
    }
    EXPECT_EQ(name, "") << source << ": the last region has no end";
}

/// By the names that the document gives them. Only sources that are built count.
std::map<std::string, std::string> AllRegions()
{
    std::map<std::string, std::string> regions;
    std::istringstream sources(KORLO_EXAMPLE_SOURCES);
    for (std::string source; sources >> source;)
    {
        ReadRegions(source, regions);
    }
    return regions;
}

std::string Document(const std::string& path = "guide.md")
{
    return ContentOf(std::string(KORLO_DOCS) + '/' + path).value();
}

/// Returns the regions that the document shows.
std::set<std::string> ExpectRegions(const std::string& path, const std::map<std::string, std::string>& regions)
{
    std::istringstream document(Document(path));
    std::set<std::string> shown;
    for (const Block& block : ReadBlocks(document))
    {
        SCOPED_TRACE("docs/" + path + ", line " + std::to_string(block.line));
        if (block.language == "cpp")
        {
            const auto region = regions.find(block.origin);
            EXPECT_EQ(block.text, region == regions.end() ? "no such region" : region->second) << block.origin;
            shown.insert(block.origin);
        }
    }
    return shown;
}

TEST(GuideTest, EveryBlockOfCodeIsARegionOfACompiledExample)
{
    const std::map<std::string, std::string> regions = AllRegions();
    const std::set<std::string> shown = ExpectRegions("guide.md", regions);
    for (const auto& [name, text] : regions)
    {
        EXPECT_TRUE(shown.contains(name)) << "the guide does not show " << name;
    }
}

TEST(GuideTest, TheReadmeShowsCompiledExamplesToo)
{
    EXPECT_FALSE(ExpectRegions("../README.md", AllRegions()).empty());
}

TEST(GuideTest, EverySettingsFileIsOneOfTheExamples)
{
    std::istringstream document(Document());
    int count = 0;
    for (const Block& block : ReadBlocks(document))
    {
        if (block.language == "ini")
        {
            EXPECT_EQ(ContentOf(std::string(KORLO_EXAMPLES) + '/' + block.origin).value_or("missing"), block.text);
            ++count;
        }
    }
    EXPECT_GT(count, 0);
}

TEST(GuideTest, EveryClassOfTheUtilitiesHasAPage)
{
    for (const char* name :
         {"KorloSettingsClient", "SettingsWatcher", "IniWatcher", "LogManager", "ResourceManager", "ResourceReserver"})
    {
        EXPECT_THAT(Document(), testing::HasSubstr(std::string("\n## ") + name + '\n'));
    }
}

}  // namespace
}  // namespace korlo::examples
