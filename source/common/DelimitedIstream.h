#pragma once
// A stream over one block of the settings protocol.

#include <istream>

#include "korlo/stl/DelimitedStreamBuf.h"

namespace korlo::stl
{

/// Reads the lines of `source` up to a line that is exactly the delimiter, which is consumed; the next byte of `source`
/// is the one after it. Made on the stack for one block.
///
/// Thread safety: none of its own; belongs to the thread that reads `source`.
class DelimitedIstream : public std::istream
{
public:
    /// @param source borrowed; must outlive this stream.
    DelimitedIstream(std::istream* source, const char* delimiter) : std::istream(nullptr), _buffer(source, delimiter)
    {
        rdbuf(&_buffer);
    }

    /// True once the delimiter line has been met; false after the end of a block that was cut short.
    bool DelimiterFound() const { return _buffer.DelimiterFound(); }

private:
    DelimitedStreamBuf _buffer;
};

}  // namespace korlo::stl
