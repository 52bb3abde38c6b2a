#include "korlo/osa/TcpSocketStream.h"

#include <algorithm>
#include <streambuf>

#include "korlo/osa/Exception.h"

namespace korlo::osa
{
namespace
{

constexpr std::size_t MaximumBytes = 64 * 1024;  // of either buffer
constexpr std::size_t SmallBytes = 4 * 1024;     // of an output buffer while that is enough

}  // namespace

/// One thread works on the get area while another works on the put area; they have nothing else in common that changes.
class TcpSocketStream::Buffer : public std::streambuf
{
public:
    Buffer(TcpSocket& socket, unsigned int timeoutMs) : _socket(socket), _timeoutMs(timeoutMs) {}

protected:
    int_type underflow() override
    {
        if (gptr() == egptr())
        {
            Receive();
        }
        return gptr() == egptr() ? traits_type::eof() : traits_type::to_int_type(*gptr());
    }

    int_type overflow(int_type character) override
    {
        if (traits_type::eq_int_type(character, traits_type::eof()))
        {
            return traits_type::not_eof(character);
        }
        const char byte = traits_type::to_char_type(character);
        return xsputn(&byte, 1) == 1 ? character : traits_type::eof();
    }

    std::streamsize xsputn(const char* bytes, std::streamsize count) override
    {
        const auto size = static_cast<std::size_t>(count);
        if (Waiting() + size > MaximumBytes)
        {
            return Send(bytes, size) ? count : 0;
        }
        if (size > static_cast<std::size_t>(epptr() - pptr()))
        {
            Grow(Waiting() + size);
        }
        std::copy_n(bytes, size, pptr());
        pbump(static_cast<int>(size));
        return count;
    }

    int sync() override { return Send(nullptr, 0) ? 0 : -1; }

private:
    void Receive()
    {
        if (_pInput == nullptr)
        {
            // Not zeroed: memory that nobody touches costs nothing.
            _pInput = std::make_unique_for_overwrite<char[]>(MaximumBytes);
        }
        const TcpSocket::IoResult result = _socket.ReadSome(_pInput.get(), MaximumBytes, _timeoutMs);
        setg(_pInput.get(), _pInput.get(), _pInput.get() + result.bytes);
    }

    std::size_t Waiting() const { return static_cast<std::size_t>(pptr() - pbase()); }

    void Grow(std::size_t needed)
    {
        const std::size_t waiting = Waiting();
        const std::size_t size = needed <= SmallBytes ? SmallBytes : MaximumBytes;
        auto pGrown = std::make_unique_for_overwrite<char[]>(size);
        std::copy(pbase(), pptr(), pGrown.get());
        _pOutput = std::move(pGrown);
        setp(_pOutput.get(), _pOutput.get() + size);
        pbump(static_cast<int>(waiting));
    }

    /// Sends what waits and `bytes` behind it.
    bool Send(const char* bytes, std::size_t size)
    {
        const TcpSocket::IoResult result = _socket.WriteAll(pbase(), Waiting(), bytes, size, _timeoutMs);
        if (static_cast<std::size_t>(epptr() - pbase()) > SmallBytes)
        {
            _pOutput.reset();
            setp(nullptr, nullptr);
        }
        else
        {
            setp(pbase(), epptr());
        }
        return result.status == TcpSocket::Done;
    }

    TcpSocket& _socket;
    const unsigned int _timeoutMs;

    std::unique_ptr<char[]> _pInput;   // the reader's
    std::unique_ptr<char[]> _pOutput;  // the writer's
};

TcpSocketStream::TcpSocketStream(TcpSocket* pSocket, unsigned int timeoutMs)
    : std::iostream(nullptr),
      _pBuffer(std::make_unique<Buffer>(*NotNull(pSocket, "Socket"), timeoutMs)),
      _ostream(_pBuffer.get())
{
    rdbuf(_pBuffer.get());  // which clears the bad flag that a stream without a buffer has
}

TcpSocketStream::~TcpSocketStream() = default;

std::ostream& TcpSocketStream::GetOstream()
{
    return _ostream;
}

}  // namespace korlo::osa
