#pragma once
// A stream into a string that cannot be cut unnoticed.

#include <ios>
#include <sstream>
#include <string>
#include <utility>

namespace korlo::stl
{

/// A std::ostringstream that passes on what stands in the way of writing, such as std::bad_alloc. The bare one keeps it
/// to itself: its text ends where memory did, and only who asks for its state knows.
///
///     TextStream out;
///     ini.SaveToStream(out);  // throws, or all of it is there
///     return std::move(out).str();
///
/// Thread safety: none of its own; the owner guards it.
class TextStream : public std::ostringstream
{
public:
    /// @param room its capacity is used for the text, which takes the place of what it holds.
    explicit TextStream(std::string room = std::string()) : std::ostringstream(std::move(room))
    {
        exceptions(std::ios_base::badbit);
    }
};

}  // namespace korlo::stl
