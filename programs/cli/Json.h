#pragma once
// Results as JSON, each on one line with a line feed. Bytes that are not UTF-8 become U+FFFD.

#include <string>

#include <nlohmann/json.hpp>

#include "korlo/core/IniFile.h"

namespace korlo::core
{

/// `{"Group":{"Key":"Value"}}`; found by nlohmann::json wherever a document becomes a part of a value.
void to_json(nlohmann::json& value, const IniFile& document);

}  // namespace korlo::core

namespace korlo::settings::cli
{

/// The line for anything that the library makes a value of, a document too.
std::string JsonOf(const nlohmann::json& value);

}  // namespace korlo::settings::cli
