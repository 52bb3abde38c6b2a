#include "Table.h"

#include <algorithm>
#include <cstddef>

namespace korlo::settings::cli
{
namespace
{

/// The width on a terminal, of UTF-8.
std::size_t WidthOf(const std::string& text)
{
    return static_cast<std::size_t>(
        std::ranges::count_if(text, [](char c) { return (static_cast<unsigned char>(c) & 0xC0U) != 0x80U; }));
}

}  // namespace

std::string TableOf(const std::vector<TableRow>& rows, const std::string& indent)
{
    std::vector<std::size_t> widths;
    for (const TableRow& row : rows)
    {
        widths.resize(std::max(widths.size(), row.size()));
        for (std::size_t column = 0; column < row.size(); ++column)
        {
            widths[column] = std::max(widths[column], WidthOf(row[column]));
        }
    }
    std::string text;
    for (const TableRow& row : rows)
    {
        text += indent;
        for (std::size_t column = 0; column + 1 < row.size(); ++column)
        {
            text += row[column] + std::string(widths[column] - WidthOf(row[column]) + 2, ' ');
        }
        text += row.back();
        text.erase(text.find_last_not_of(' ') + 1);
        text += '\n';
    }
    return text;
}

}  // namespace korlo::settings::cli
