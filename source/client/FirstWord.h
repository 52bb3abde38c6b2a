#pragma once
// The word that says what a line of the settings protocol is.

#include <algorithm>
#include <string_view>

namespace korlo::settings::client
{

/// The first word of the line, between blanks; empty if there is none.
inline std::string_view FirstWord(std::string_view line)
{
    constexpr std::string_view blanks = " \t\n\v\f\r";
    line.remove_prefix(std::min(line.find_first_not_of(blanks), line.size()));
    return line.substr(0, line.find_first_of(blanks));
}

}  // namespace korlo::settings::client
