#pragma once
// Groups that no client can change.

#include "Failure.h"
#include "korlo/core/IniFile.h"

namespace korlo::settings::cli
{

/// Says on standard error which groups of a change are restricted: the store drops them without a word, and whoever
/// typed the change should not believe that it was made.
/// @return StatusNo when nothing else was to be changed, else StatusDone.
ExitStatus ReportRestricted(const core::IniFile& changes);

}  // namespace korlo::settings::cli
