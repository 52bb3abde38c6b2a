#pragma once
// Tables for people.

#include <string>
#include <vector>

namespace korlo::settings::cli
{

using TableRow = std::vector<std::string>;

/// The rows with their columns below one another on a terminal, two blanks apart.
/// @param indent what each line begins with.
std::string TableOf(const std::vector<TableRow>& rows, const std::string& indent = std::string());

}  // namespace korlo::settings::cli
