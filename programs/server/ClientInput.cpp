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

constexpr unsigned int DoNotWait = 0;
constexpr std::size_t ReceiveBytes = 64 * 1024;     // that one system call takes
constexpr std::size_t KeptBytes = 1024;             // that an idle connection keeps; most requests fit
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
    if (_ended || _queue.IsBroken() || !_mayWait())
    {
        return false;
    }
    if (!ReceiveMore())
    {
        UseEmptyBuffer(KeptBytes);
        if (_queue.GetRefusedBytes() > 0)
        {
            WaitForInput();  // and for room: this client does not take all that it is sent
        }
        Receive(osa::Infinite);
    }
    ShowRequest();
    return gptr() < egptr() && !_queue.IsBroken();
}

/// Where the last system call filled the small buffer, takes what is there beyond; false when there is nothing.
bool ClientInput::ReceiveMore()
{
    if (_end - _base < KeptBytes)
    {
        return false;
    }
    UseEmptyBuffer(ReceiveBytes);
    return Receive(DoNotWait);
}

void ClientInput::UseEmptyBuffer(std::size_t capacity)
{
    _base = Position();
    setg(nullptr, nullptr, nullptr);
    if (_capacity != capacity)
    {
        _capacity = 0;
        _pBuffer.reset();
        // Not zeroed: memory that nobody touches costs nothing.
        _pBuffer = std::make_unique_for_overwrite<char[]>(capacity);
        _capacity = capacity;
    }
    setg(_pBuffer.get(), _pBuffer.get(), _pBuffer.get());
}

void ClientInput::WaitForInput()
{
    const OutgoingQueue::OwnWait ownWait(_queue);
    unsigned int ready = 0;
    while ((ready & osa::TcpSocket::Readable) == 0 && _queue.GetRefusedBytes() > 0)
    {
        ready = _socket.Wait(true, true, osa::Infinite);
        if ((ready & osa::TcpSocket::Writable) != 0)
        {
            _queue.Drain();
        }
    }
}

void ClientInput::HoldBack()
{
    if (_queue.GetRefusedBytes() <= SmallQueueBytes)
    {
        return;
    }
    const OutgoingQueue::OwnWait ownWait(_queue);
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
            Receive(osa::Infinite);
        }
    }
}

/// Takes what is there behind what was not read yet; false when nothing is by the time that is up.
bool ClientInput::Receive(unsigned int timeoutMs)
{
    const std::size_t used = _end - _base;
    const osa::TcpSocket::IoResult result = _socket.ReadSome(&_pBuffer[used], _capacity - used, timeoutMs);
    if (result.status == osa::TcpSocket::TimedOut)
    {
        return false;
    }
    _end += result.bytes;
    _ended = result.status != osa::TcpSocket::Done;
    if (result.status == osa::TcpSocket::Failed)
    {
        _queue.Break("the connection was lost: " + osa::SystemReason(result.error));
    }
    return true;
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

}  // namespace korlo::daemon
