#pragma once
// The form that the help of every program has.

#include <algorithm>
#include <cstddef>
#include <sstream>
#include <string>
#include <vector>

namespace korlo
{

/// A row of a table: what a person types, and what it does, in a sentence.
struct HelpRow
{
    std::string term;
    std::string text;
};

/// The words in lines of at most 100 columns: the first goes on at `column`, the others begin there.
inline std::string Wrapped(const std::string& text, std::size_t column)
{
    constexpr std::size_t width = 100;
    std::istringstream words(text);
    std::string lines;
    std::size_t at = column;
    for (std::string word; words >> word; at += word.size())
    {
        const bool isFirst = at == column;
        if (!isFirst && at + 1 + word.size() > width)
        {
            lines += '\n' + std::string(column, ' ');
            at = column;
        }
        else if (!isFirst)
        {
            lines += ' ';
            ++at;
        }
        lines += word;
    }
    return lines + '\n';
}

/// The rows in two columns.
inline std::string TextOf(const std::vector<HelpRow>& rows)
{
    std::size_t width = 0;
    for (const HelpRow& row : rows)
    {
        width = std::max(width, row.term.size());
    }
    std::string text;
    for (const HelpRow& row : rows)
    {
        text += "  " + row.term + std::string(width - row.term.size() + 2, ' ') + Wrapped(row.text, width + 4);
    }
    return text;
}

/// @param examples lines that can be typed, each with two blanks before it and a line feed behind it.
/// @param remarks the rest of what a person needs to know.
inline std::string HelpText(const std::string& usage, const std::string& sentence, const std::vector<HelpRow>& options,
                            const std::string& examples, const std::string& remarks)
{
    return "Usage: " + usage + "\n\n" + sentence + "\n\nOptions:\n" + TextOf(options) + "\nExamples:\n" + examples +
           '\n' + Wrapped(remarks, 0);
}

}  // namespace korlo
