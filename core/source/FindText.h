#pragma once
// Looks for one text in another.

#include <cstddef>
#include <string_view>

namespace korlo::core
{

/// Where `wanted` occurs first in `text`, or npos; the empty text occurs at 0. Costs the sum of the two lengths,
/// whatever they hold, and no memory; std::string_view::find may cost their product.
std::size_t FindText(std::string_view text, std::string_view wanted);

/// The same for a text that is not empty, by the way that serves long ones.
std::size_t FindLongText(std::string_view text, std::string_view wanted);

}  // namespace korlo::core
