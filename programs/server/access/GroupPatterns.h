#pragma once
// What group names and patterns have in common.

#include <string>
#include <string_view>

namespace korlo::daemon
{

/// True when every group name that `entry`, a name or a pattern, matches is matched by `pattern` too. It is exact:
///
///     The pattern covers the entry exactly when it matches the entry's text, taken as a name, asterisks and all.
///
/// For an entry without `*` that is what matching means. For a pattern: `*` is a legal character of a name, so the text
/// of `entry` is itself one of the names that `entry` matches; a pattern that does not match it does not cover. And
/// where `pattern` does match that text, each `*` of the text was taken by a `*` of the pattern, for nothing else in a
/// pattern matches that character; and a `*` of the pattern takes whatever is put there instead. For the same reason
/// several patterns together cover an entry only where one of them does.
///
/// Costs the sum of both lengths, whatever they hold. Any thread.
bool Covers(std::string_view pattern, std::string_view entry);

/// True when some group name is matched by both, each a name or a pattern. It is exact:
///
///     Two patterns meet exactly when, of what stands before the first `*` of each, one begins with the other, and of
///     what stands behind the last `*` of each, one ends with the other.
///
/// Any name that both match shows that this must be so. Where it is so, the longer beginning, then whatever stands
/// between the asterisks of the one, then of the other, then the longer end, is a name that both match. A pattern meets
/// a name when it matches it.
///
/// Costs the sum of both lengths for texts without two asterisks in a row (WithoutRepeatedStars). Any thread.
bool Meet(std::string_view left, std::string_view right);

/// The pattern with each run of `*` made one, which matches the same names.
std::string WithoutRepeatedStars(const std::string& pattern);

}  // namespace korlo::daemon
