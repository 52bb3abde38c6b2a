#include "cli/DocumentSplitter.h"

#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace korlo::settings::cli
{
namespace
{

using testing::ElementsAre;

std::vector<std::string> SplitInPieces(const std::string& text, std::size_t size)
{
    DocumentSplitter splitter;
    std::vector<std::string> documents;
    const auto takeAll = [&] {
        while (auto document = splitter.Take())
        {
            documents.push_back(*document);
        }
    };
    for (std::size_t at = 0; at < text.size(); at += size)
    {
        splitter.Add(std::string_view(text).substr(at, size));
        takeAll();
    }
    splitter.AddEnd();
    takeAll();
    return documents;
}

TEST(DocumentSplitterTest, SplitsAtLinesOfASinglePointHoweverTheTextComes)
{
    const std::string text = "[A]\nk=.\n.\n..\n .\n.\r\n[B]";
    for (std::size_t size = 1; size <= text.size(); ++size)
    {
        SCOPED_TRACE(size);
        EXPECT_THAT(SplitInPieces(text, size), ElementsAre("[A]\nk=.\n", "..\n .\n", "[B]\n"));
    }
}

TEST(DocumentSplitterTest, GivesADocumentAsSoonAsItsSeparatorCame)
{
    DocumentSplitter splitter;
    splitter.Add("[A]\n.");
    EXPECT_FALSE(splitter.Take());
    splitter.Add("\n");
    EXPECT_EQ(splitter.Take(), "[A]\n");
    EXPECT_FALSE(splitter.Take());
}

}  // namespace
}  // namespace korlo::settings::cli
