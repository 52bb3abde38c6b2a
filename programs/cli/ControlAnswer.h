#pragma once
// What the answers of the control door have in common.

#include <string>
#include <vector>

#include "Failure.h"
#include "korlo/core/IniFile.h"

namespace korlo::settings::cli
{

/// For an answer that no server of this version gives.
Failure MakesNoSense(const std::string& what);

/// The value of a key as a number.
/// @throws Failure.
int NumberOf(const std::string& key, const std::string& value);

/// The groups PREFIX1, PREFIX2, ... of an answer, as many as follow one another.
std::vector<std::string> NumberedGroups(const core::IniFile& answer, const std::string& prefix);

/// The values of the keys PREFIX1, PREFIX2, ... of a group, as many as follow one another.
std::vector<std::string> NumberedValues(const core::IniFile::KeyValueMap& values, const std::string& prefix);

}  // namespace korlo::settings::cli
