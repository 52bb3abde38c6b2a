#pragma once
// Groups that no client can change.

#include "Failure.h"
#include "settings/GroupNameCollection.h"

namespace korlo::settings::cli
{

/// Says on standard error which of the groups that were to be changed are restricted: the store drops them without a
/// word, and whoever typed the change should not believe that it was made.
/// @return StatusNo when nothing else was to be changed, else StatusDone.
ExitStatus ReportRestricted(const GroupNameCollection& groups);

}  // namespace korlo::settings::cli
