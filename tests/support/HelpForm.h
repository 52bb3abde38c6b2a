#pragma once
// What every --help of the programs looks like.

#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace korlo
{

/// Expects the usage, one sentence, the options and the examples, in this order, in lines of at most 100 columns, and
/// every sentence with a capital and a full stop.
inline void ExpectHelpForm(const std::string& help, const std::string& program)
{
    std::istringstream text(help);
    std::vector<std::string> lines;
    for (std::string line; std::getline(text, line);)
    {
        EXPECT_LE(line.size(), 100u) << line;
        EXPECT_EQ(line.find("Excludes"), std::string::npos) << line;
        lines.push_back(line);
    }
    ASSERT_GT(lines.size(), 5u);
    EXPECT_TRUE(lines[0].starts_with("Usage: " + program + ' ')) << lines[0];
    EXPECT_EQ(lines[1], "");
    EXPECT_TRUE(std::regex_match(lines[2], std::regex("[A-Z][^.]*\\."))) << lines[2];
    EXPECT_EQ(lines[3], "");
    EXPECT_EQ(lines[4], "Options:");
    std::size_t row = 5;
    for (; row < lines.size() && !lines[row].empty(); ++row)
    {
        EXPECT_TRUE(std::regex_match(lines[row], std::regex("  (--[a-z-]+( [^ ]+)?  +[A-Z]|    ).*"))) << lines[row];
    }
    EXPECT_GT(row, 6u);
    EXPECT_NE(help.find("\n\nExamples:\n  " + program + ' '), std::string::npos);
    EXPECT_GT(help.find("\n\nExamples:\n"), help.find("\n\nOptions:\n"));
}

}  // namespace korlo
