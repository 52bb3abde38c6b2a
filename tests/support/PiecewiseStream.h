#pragma once
// A stream that arrives in pieces, as it does from a network.

#include <algorithm>
#include <cstddef>
#include <istream>
#include <streambuf>
#include <string>
#include <utility>

namespace korlo
{

/// Hands out a text in pieces of a given size, then ends.
///
/// Thread safety: none of its own; it belongs to the thread that reads it.
class PiecewiseStream : public std::istream
{
public:
    PiecewiseStream(std::string text, std::size_t pieceBytes)
        : std::istream(nullptr),
          _buffer(std::move(text), pieceBytes)
    {
        rdbuf(&_buffer);
    }

private:
    class Buffer : public std::streambuf
    {
    public:
        Buffer(std::string text, std::size_t pieceBytes) : _text(std::move(text)), _pieceBytes(pieceBytes) {}

    protected:
        int_type underflow() override
        {
            const std::size_t size = std::min(_pieceBytes, _text.size() - _next);
            setg(_text.data() + _next, _text.data() + _next, _text.data() + _next + size);
            _next += size;
            return size == 0 ? traits_type::eof() : traits_type::to_int_type(*gptr());
        }

    private:
        std::string _text;
        const std::size_t _pieceBytes;
        std::size_t _next = 0;
    };

    Buffer _buffer;
};

}  // namespace korlo
