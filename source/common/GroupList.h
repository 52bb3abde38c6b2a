#pragma once
// Writes a group list of the settings protocol.

#include <ostream>
#include <string>

#include "settings/GroupNameCollection.h"

namespace korlo::settings::common
{

/// False for what a list of lines cannot carry: a name that holds a line break, or is the full stop that ends the list.
bool FitsGroupList(const std::string& nameOrPattern);

/// @throws osa::Exception naming the first entry that does not fit.
void CheckGroupList(const GroupNameCollection& groups);

/// Writes one line for each entry and the line that ends the list. The entries fit.
void WriteGroupList(std::ostream& out, const GroupNameCollection& groups);

}  // namespace korlo::settings::common
