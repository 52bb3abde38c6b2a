#include "korlo/stl/DelimitedStreamBuf.h"

#include <algorithm>
#include <string_view>

#include "korlo/osa/Exception.h"
#include "korlo/stl/GetArea.h"

namespace korlo::stl
{
DelimitedStreamBuf::DelimitedStreamBuf(std::istream* pSource, const char* delimiter)
    : _pSource(osa::NotNull(pSource, "Source")),
      _delimiter(osa::NotNull(delimiter, "Delimiter"))
{
}

DelimitedStreamBuf::~DelimitedStreamBuf() = default;

bool DelimitedStreamBuf::DelimiterFound() const
{
    return _delimiterFound;
}

DelimitedStreamBuf::int_type DelimitedStreamBuf::underflow()
{
    if (gptr() < egptr())
    {
        return traits_type::to_int_type(*gptr());
    }
    setg(nullptr, nullptr, nullptr);
    if (_ended || !NextLine())
    {
        return traits_type::eof();
    }
    setg(_line.data(), _line.data(), _line.data() + _line.size());
    return traits_type::to_int_type(*gptr());
}

std::streamsize DelimitedStreamBuf::xsgetn(char* pTarget, std::streamsize room)
{
    if (room <= 0)
    {
        return 0;
    }
    std::streamsize count = 0;
    do
    {
        const std::streamsize ofLine = std::min<std::streamsize>(room - count, egptr() - gptr());
        std::copy_n(gptr(), ofLine, pTarget + count);
        setg(eback(), gptr() + ofLine, egptr());
        count += ofLine;
        if (gptr() == egptr() && !_ended)
        {
            const std::size_t copied = CopyBufferedLines(pTarget + count, static_cast<std::size_t>(room - count));
            count += static_cast<std::streamsize>(copied);
        }
    } while (count < room && !traits_type::eq_int_type(underflow(), traits_type::eof()));
    return count;
}

/// Up to the delimiter, which NextLine takes, as it takes a line that is not whole there or does not fit.
std::size_t DelimitedStreamBuf::CopyBufferedLines(char* pTarget, std::size_t room)
{
    if (!_pSource->good())
    {
        return 0;
    }
    std::streambuf& source = *_pSource->rdbuf();
    const std::string_view text = GetArea::Of(source).substr(0, room);
    std::size_t lines = 0;
    for (auto end = text.find('\n'); end != text.npos && text.substr(lines, end - lines) != _delimiter;
         end = text.find('\n', lines))
    {
        lines = end + 1;
    }
    std::copy_n(text.data(), lines, pTarget);
    GetArea::Skip(source, lines);
    return lines;
}

bool DelimitedStreamBuf::NextLine()
{
    _ended = true;  // stays so unless a whole line comes, however the read below ends
    try
    {
        std::getline(*_pSource, _line);
    }
    catch (const std::ios_base::failure&)
    {
        // The source throws for its own flags; they are looked at below, and what was read is still handed on.
    }
    if (!_pSource->good())
    {
        return !_line.empty();  // the source ended: what is left of it has no line break and is ordinary text
    }
    if (_line == _delimiter)
    {
        _delimiterFound = true;
        return false;
    }
    _line.push_back('\n');
    _ended = false;
    return true;
}

}  // namespace korlo::stl
