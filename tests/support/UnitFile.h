#pragma once
// A shipped file of lines, such as a systemd unit.

#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/Files.h"

namespace korlo
{

using Lines = std::vector<std::string>;

/// The lines of a text that are neither empty nor comments.
inline Lines LinesIn(const std::string& content)
{
    std::istringstream text(content);
    Lines lines;
    for (std::string line; std::getline(text, line);)
    {
        if (!line.empty() && line.front() != '#')
        {
            lines.push_back(line);
        }
    }
    return lines;
}

/// What follows the beginning of a line; fails where no line begins so.
inline std::string RestIn(const Lines& lines, const std::string& beginning)
{
    for (const std::string& line : lines)
    {
        if (line.starts_with(beginning))
        {
            return line.substr(beginning.size());
        }
    }
    ADD_FAILURE() << "no line begins with " << beginning;
    return {};
}

/// Fails for each line of a unit that needs a comment and has none. A comment stands for the lines up to the next empty
/// one.
/// @param speaking how lines begin that need none.
inline void ExpectLinesBelowComments(const std::string& unit, const Lines& speaking)
{
    std::istringstream text(unit);
    bool explained = false;
    for (std::string line; std::getline(text, line);)
    {
        explained = !line.empty() && line.front() != '[' && (explained || line.front() == '#');
        bool speaksForItself = line.empty() || line.front() == '[';
        for (const std::string& beginning : speaking)
        {
            speaksForItself = speaksForItself || line.starts_with(beginning);
        }
        EXPECT_TRUE(explained || speaksForItself) << line;
    }
}

}  // namespace korlo
