#include "korlo/stl/DelimitedStreamBuf.h"

#include "korlo/osa/Exception.h"

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
