#pragma once
// What the operands of commands mean, and which of them come to nothing.

#include <string>
#include <vector>

#include "Failure.h"
#include "korlo/core/IniFile.h"
#include "settings/GroupNameCollection.h"
#include "settings/SettingLocator.h"

namespace korlo::settings::cli
{

/// @throws Failure with StatusWrongCommandLine for a text that is not of the form `[Group]Key`.
SettingLocator ParseLocator(const std::string& text);

/// The document in the file, or on standard input for "-". Lines that make no sense are warned of and skipped.
/// @throws Failure with StatusUnusable.
core::IniFile ReadDocument(const std::string& path);

GroupNameCollection NamesOf(const std::vector<std::string>& operands);

/// "no group matches 'A', 'B'"
/// @throws Failure with StatusNo, always.
[[noreturn]] void FailForNoMatch(const std::vector<std::string>& operands);

/// Says on standard error which of the groups that were to be changed are restricted: the store drops them without a
/// word, and whoever typed the change should not believe that it was made.
/// @return StatusNo when nothing else was to be changed, else StatusDone.
ExitStatus ReportRestricted(const GroupNameCollection& groups);

}  // namespace korlo::settings::cli
