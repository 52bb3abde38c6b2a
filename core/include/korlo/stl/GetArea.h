#pragma once
// Looks at what a stream has read ahead.

#include <algorithm>
#include <climits>
#include <cstddef>
#include <streambuf>
#include <string_view>

namespace korlo::stl
{

/// What lies in a stream buffer, which shows it to derived classes alone. To take it from here costs a fraction of what
/// the stream's operations cost, and neither asks the buffer's source for more nor changes the state of a stream.
///
/// Thread safety: none of its own; as the buffer's.
class GetArea : public std::streambuf
{
public:
    /// At most as much as Skip can step over; valid until the buffer is read from.
    static std::string_view Of(const std::streambuf& buffer)
    {
        const char* const pNext = (buffer.*&GetArea::gptr)();
        const auto count = static_cast<std::size_t>((buffer.*&GetArea::egptr)() - pNext);
        return {pNext, std::min<std::size_t>(count, INT_MAX)};
    }

    /// Takes `count` bytes of what `Of` has returned.
    static void Skip(std::streambuf& buffer, std::size_t count) { (buffer.*&GetArea::gbump)(static_cast<int>(count)); }
};

}  // namespace korlo::stl
