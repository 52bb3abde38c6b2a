#pragma once
// Small services on byte strings.

#include <string>
#include <vector>

namespace korlo::core
{

/// Functions on byte strings. A zero byte is a character like any other.
///
/// Thread safety: all methods, from any thread; they keep no state.
class StringUtil
{
public:
    StringUtil() = delete;

    /// True when the whole of `text` matches `pattern`, in which `*` stands for any run of characters, none included,
    /// and every other character for itself. Needs no memory, and costs the sum of the two lengths, whatever they hold.
    static bool MatchesPattern(const std::string& pattern, const std::string& text);

    /// True when `text` begins with `prefix`; the empty prefix begins every text.
    static bool StartsWith(const std::string& text, const std::string& prefix) { return text.starts_with(prefix); }

    /// Splits `text` at every character that occurs in `delimiters`, into at most `maxParts` pieces.
    /// Empty pieces are kept: "[g]k" at "[]" gives "", "g" and "k", and an empty text one empty piece. The last piece
    /// that is allowed takes the rest of the text as it stands: "a.b.c" at "." into 2 pieces gives "a" and "b.c".
    /// @param out cleared first; stays empty when `maxParts` is 0. Must be neither the text nor part of it.
    static void Split(std::vector<std::string>& out, const std::string& text, const std::string& delimiters,
                      unsigned int maxParts);

    /// True, and `out` set, when the whole of `text` is a decimal integer that an int can hold: digits after at most
    /// one minus sign, no white space, no plus sign. Otherwise `out` stays as it was.
    static bool TryParse(const std::string& text, int& out);
};

}  // namespace korlo::core
