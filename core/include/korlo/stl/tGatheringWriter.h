#pragma once
// Writes many small pieces of text to a stream.

#include <array>
#include <cstddef>
#include <ostream>
#include <string_view>

namespace korlo::stl
{

/// Gathers text and hands it to a stream in pieces of up to `Bytes`, since an operation of the stream for each token
/// would cost more than the text. Call Flush at the end: the destructor does not.
///
///     tGatheringWriter<1024> writer(out);
///     writer.Append("key=");
///     writer.Append(value);
///     writer.Flush();
///
/// Every operation may write to the stream, and throws what that throws.
///
/// Thread safety: none of its own; lives on the stack of the operation that writes. Each page of a stack that was ever
/// touched stays with its thread, so keep `Bytes` small.
template <std::size_t Bytes>
class tGatheringWriter
{
public:
    /// @param out borrowed; must outlive the writer.
    explicit tGatheringWriter(std::ostream& out) : _out(out) {}
    tGatheringWriter(const tGatheringWriter&) = delete;
    tGatheringWriter& operator=(const tGatheringWriter&) = delete;

    /// One character, which is copied.
    void Append(char c)
    {
        *Reserve(1) = c;
        Advance(1);
    }

    /// Text of any length. What is longer than `Bytes` is written at once, behind what was gathered.
    void Append(std::string_view text)
    {
        char* const pTarget = Reserve(text.size());
        if (pTarget == nullptr)
        {
            Flush();
            // cppcheck-suppress invalidLifetime ; it takes the caller's text for gone
            _out.write(text.data(), static_cast<std::streamsize>(text.size()));
            return;
        }
        text.copy(pTarget, text.size());
        Advance(text.size());
    }

    /// Room for so many bytes, to be filled and then counted by Advance; null if there is never so much.
    char* Reserve(std::size_t count)
    {
        if (count > _pending.size())
        {
            return nullptr;
        }
        if (count > _pending.size() - _used)
        {
            Flush();
        }
        return _pending.data() + _used;
    }

    /// @param count bytes that were filled, at most what was last reserved.
    void Advance(std::size_t count) { _used += count; }

    /// Hands on what was gathered. Does not flush the stream.
    void Flush()
    {
        _out.write(_pending.data(), static_cast<std::streamsize>(_used));
        _used = 0;
    }

private:
    std::ostream& _out;
    std::size_t _used = 0;
    std::array<char, Bytes> _pending;
};

}  // namespace korlo::stl
