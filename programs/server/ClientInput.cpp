#include "ClientInput.h"

#include <algorithm>
#include <string>
#include <utility>

#include "korlo/osa/Exception.h"
#include "korlo/osa/Mutex.h"

namespace korlo::daemon
{
namespace
{

constexpr std::size_t ReceiveBytes = 64 * 1024;     // that one system call takes
constexpr std::size_t KeptBytes = 4 * 1024;         // that an idle connection may keep
constexpr std::size_t SmallQueueBytes = 64 * 1024;  // that do not keep a client from its next request

}  // namespace

ClientInput::ClientInput(osa::TcpSocket& socket, OutgoingQueue& queue, std::size_t maxMessage,
                         std::function<bool()> mayWait)
    : _socket(socket),
      _queue(queue),
      _maxMessage(maxMessage),
      _mayWait(std::move(mayWait))
{
}

void ClientInput::BeginRequest()
{
    _request = Position();
    ShowRequest();
}

/// Makes the get area end where the request reaches its limit.
void ClientInput::ShowRequest()
{
    const std::size_t shown = std::min(GetUnreadBytes(), _maxMessage - GetRequestBytes());
    setg(eback(), gptr(), gptr() + shown);
}

ClientInput::int_type ClientInput::underflow()
{
    if (gptr() < egptr())
    {
        return traits_type::to_int_type(*gptr());
    }
    if (GetRequestBytes() >= _maxMessage)
    {
        _queue.Break("its request is larger than " + std::to_string(_maxMessage) + " bytes");
        return traits_type::eof();
    }
    return Fill() ? traits_type::to_int_type(*gptr()) : traits_type::eof();
}

/// Everything that was received has been read.
bool ClientInput::Fill()
{
    const bool wasReleased = ReleaseLargeBuffer();
    if (_ended || _queue.IsBroken() || !_mayWait())
    {
        return false;
    }
    // Where nobody else can leave anything to send, receiving is waiting enough.
    if (_expectsNotifications || wasReleased || _queue.GetRefusedBytes() > 0)
    {
        WaitForInput();
    }
    MakeRoom();
    Receive();
    ShowRequest();
    return gptr() < egptr() && !_queue.IsBroken();
}

void ClientInput::WaitForInput()
{
    unsigned int ready = 0;
    while ((ready & osa::TcpSocket::Readable) == 0)
    {
        const bool hasToSend = _queue.GetRefusedBytes() > 0;
        ready = _socket.Wait(true, hasToSend, osa::Infinite);
        if (hasToSend && (ready & osa::TcpSocket::Writable) != 0)
        {
            _queue.Drain();
        }
    }
}

void ClientInput::HoldBack()
{
    while (_queue.GetRefusedBytes() > SmallQueueBytes && _mayWait())
    {
        const bool takesInput = !_ended && GetUnreadBytes() < _maxMessage;
        const unsigned int ready = _socket.Wait(takesInput, true, osa::Infinite);
        if ((ready & osa::TcpSocket::Writable) != 0)
        {
            _queue.Drain();
        }
        if (takesInput && (ready & osa::TcpSocket::Readable) != 0)
        {
            MakeRoom();
            Receive();
        }
    }
}

/// Takes what is there behind what was not read yet.
void ClientInput::Receive()
{
    const std::size_t used = _end - _base;
    const osa::TcpSocket::IoResult result = _socket.ReadSome(&_pBuffer[used], _capacity - used, osa::Infinite);
    _end += result.bytes;
    _touched = std::max(_touched, used + result.bytes);
    _ended = result.status != osa::TcpSocket::Done;
    if (result.status == osa::TcpSocket::Failed)
    {
        _queue.Break("the connection was lost: " + osa::SystemReason(result.error));
    }
}

/// What is unread moves down over what was read where that is at least as much, else into a larger buffer: so each byte
/// that is received is moved about once.
void ClientInput::MakeRoom()
{
    constexpr std::size_t leastRoom = ReceiveBytes / 2;
    const std::size_t unread = GetUnreadBytes();
    const std::size_t wasRead = Position() - _base;
    if (wasRead >= unread && unread + leastRoom <= _capacity)
    {
        MoveTo(_pBuffer.get());
    }
    else if (_capacity - (wasRead + unread) < leastRoom)
    {
        const std::size_t capacity = 2 * (unread + leastRoom);
        // Not zeroed: memory that nobody touches costs nothing.
        auto pLarger = std::make_unique_for_overwrite<char[]>(capacity);
        MoveTo(pLarger.get());
        _pBuffer = std::move(pLarger);
        _capacity = capacity;
        _touched = unread;
    }
}

/// Moves what is unread to the beginning of a buffer.
void ClientInput::MoveTo(char* pTo)
{
    const std::size_t unread = GetUnreadBytes();
    if (unread > 0 && pTo != gptr())
    {
        std::copy(gptr(), gptr() + unread, pTo);  // never to the right within one buffer
    }
    _base = Position();
    setg(pTo, pTo, pTo);
}

/// True when there was a large buffer, of which all was read.
bool ClientInput::ReleaseLargeBuffer()
{
    if (_touched <= KeptBytes)
    {
        return false;
    }
    _base = Position();
    setg(nullptr, nullptr, nullptr);
    _pBuffer.reset();
    _capacity = 0;
    _touched = 0;
    return true;
}

}  // namespace korlo::daemon
