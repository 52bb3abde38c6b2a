#pragma once
// Bytes as text of letters, digits, `+` and `/`: RFC 4648, with padding.

#include <optional>
#include <string>
#include <string_view>

namespace korlo::settings::mqtt
{

std::string EncodeBase64(std::string_view bytes);

/// The bytes; none when the text is not exactly what EncodeBase64 makes of some bytes.
std::optional<std::string> DecodeBase64(std::string_view text);

}  // namespace korlo::settings::mqtt
