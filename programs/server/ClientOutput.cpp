#include "ClientOutput.h"

#include <algorithm>
#include <bit>

namespace korlo::daemon
{
namespace
{

constexpr std::size_t MaximumBytes = 64 * 1024;
constexpr std::size_t FirstBytes = 1024;
constexpr std::size_t KeptBytes = 4 * 1024;  // that an idle connection may keep

}  // namespace

ClientOutput::ClientOutput(OutgoingQueue& queue) : _queue(queue)
{
}

ClientOutput::int_type ClientOutput::overflow(int_type character)
{
    if (traits_type::eq_int_type(character, traits_type::eof()))
    {
        return traits_type::not_eof(character);
    }
    const char byte = traits_type::to_char_type(character);
    return xsputn(&byte, 1) == 1 ? character : traits_type::eof();
}

std::streamsize ClientOutput::xsputn(const char* bytes, std::streamsize count)
{
    const auto size = static_cast<std::size_t>(count);
    const std::size_t part = std::min(size, MaximumBytes - Gathered());
    Gather(bytes, part);
    if (part == size)
    {
        return count;
    }
    return sync() == 0 && _queue.Send(bytes + part, size - part) ? count : 0;
}

void ClientOutput::Gather(const char* bytes, std::size_t size)
{
    if (size > static_cast<std::size_t>(epptr() - pptr()))
    {
        Grow(Gathered() + size);
    }
    std::copy_n(bytes, size, pptr());
    pbump(static_cast<int>(size));
}

int ClientOutput::sync()
{
    const bool isSent = Gathered() == 0 || _queue.Send(pbase(), Gathered());
    if (static_cast<std::size_t>(epptr() - pbase()) > KeptBytes)
    {
        _pBuffer.reset();
        setp(nullptr, nullptr);
    }
    else
    {
        setp(pbase(), epptr());
    }
    return isSent ? 0 : -1;
}

void ClientOutput::Grow(std::size_t needed)
{
    const std::size_t gathered = Gathered();
    const std::size_t size = std::bit_ceil(std::max(needed, FirstBytes));
    auto pGrown = std::make_unique_for_overwrite<char[]>(size);
    std::copy(pbase(), pptr(), pGrown.get());
    _pBuffer = std::move(pGrown);
    setp(_pBuffer.get(), _pBuffer.get() + size);
    pbump(static_cast<int>(gathered));
}

}  // namespace korlo::daemon
