#include "ClientInput.h"

#include <algorithm>
#include <string>
#include <system_error>

#include "NotificationRound.h"
#include "korlo/osa/Mutex.h"

namespace korlo::daemon
{
namespace
{

constexpr std::size_t ReceiveBytes = 64 * 1024;     // that one system call takes
constexpr std::size_t KeptBytes = 4 * 1024;         // that an idle connection may keep
constexpr std::size_t SmallQueueBytes = 64 * 1024;  // that do not keep a client from its next request

}  // namespace

ClientInput::ClientInput(osa::TcpSocket& socket, OutgoingQueue& queue, std::size_t maxMessage)
    : _socket(socket),
      _queue(queue),
      _maxMessage(maxMessage)
{
}

void ClientInput::BeginRequest()
{
    _takenBefore = 0;
    _pRequest = gptr();
    ShowRequest();
}

/// Makes the get area end where the request reaches its limit.
void ClientInput::ShowRequest()
{
    const std::size_t shown = std::min(Unread(), _maxMessage - TakenByRequest());
    setg(gptr(), gptr(), gptr() + shown);
}

ClientInput::int_type ClientInput::underflow()
{
    if (gptr() < egptr())
    {
        return traits_type::to_int_type(*gptr());
    }
    if (TakenByRequest() >= _maxMessage)
    {
        _queue.Break("its request is larger than " + std::to_string(_maxMessage) + " bytes");
        return traits_type::eof();
    }
    return Fill() ? traits_type::to_int_type(*gptr()) : traits_type::eof();
}

/// Everything that was received has been read.
bool ClientInput::Fill()
{
    _takenBefore = TakenByRequest();
    Move(_pBuffer.get());
    const bool wasReleased = ReleaseLargeBuffer();
    _pRequest = gptr();
    if (_ended || _queue.IsBroken())
    {
        return false;
    }
    if (NotificationRound* pRound = NotificationRound::Current())
    {
        pRound->Flush();
    }
    // Where nobody else can leave anything to send, receiving is waiting enough.
    if (_expectsNotifications || wasReleased || _queue.GetPendingBytes() > 0)
    {
        WaitForInput();
    }
    MakeRoom();
    _pRequest = gptr();
    Receive();
    ShowRequest();
    return gptr() < egptr() && !_queue.IsBroken();
}

void ClientInput::WaitForInput()
{
    unsigned int ready = 0;
    while ((ready & osa::TcpSocket::Readable) == 0)
    {
        const bool hasToSend = _queue.GetPendingBytes() > 0;
        ready = _socket.Wait(true, hasToSend, osa::Infinite);
        if (hasToSend && (ready & osa::TcpSocket::Writable) != 0)
        {
            _queue.Drain();
        }
    }
}

void ClientInput::HoldBack()
{
    if (NotificationRound* pRound = NotificationRound::Current())
    {
        _queue.GetPendingBytes() > SmallQueueBytes ? pRound->Flush() : pRound->OnRequest();
    }
    while (_queue.GetPendingBytes() > SmallQueueBytes)
    {
        const bool takesInput = !_ended && Unread() < _maxMessage;
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

bool ClientInput::SendRest(unsigned int timeoutMs)
{
    while (_queue.GetPendingBytes() > 0)
    {
        const unsigned int ready = _socket.Wait(false, true, timeoutMs);
        if (ready == 0)
        {
            return false;
        }
        _queue.Drain();
    }
    return true;
}

/// Takes what is there behind what was not read yet.
void ClientInput::Receive()
{
    const auto used = static_cast<std::size_t>(_pEnd - _pBuffer.get());
    const osa::TcpSocket::IoResult result = _socket.ReadSome(_pEnd, _capacity - used, osa::Infinite);
    _pEnd += result.bytes;
    _touched = std::max(_touched, used + result.bytes);
    _ended = result.status != osa::TcpSocket::Done;
    if (result.status == osa::TcpSocket::Failed)
    {
        _queue.Break("the connection was lost: " + std::generic_category().message(result.error));
    }
}

void ClientInput::MakeRoom()
{
    const std::size_t unread = Unread();
    if (_capacity - unread < ReceiveBytes / 2 || _pBuffer == nullptr)
    {
        const std::size_t capacity = std::max(2 * _capacity, ReceiveBytes);
        // Not zeroed: memory that nobody touches costs nothing.
        auto pLarger = std::make_unique_for_overwrite<char[]>(capacity);
        Move(pLarger.get());
        _pBuffer = std::move(pLarger);
        _capacity = capacity;
        _touched = unread;
    }
    else if (_pEnd > _pBuffer.get() + _capacity / 2)
    {
        Move(_pBuffer.get());
    }
}

/// Moves what was not read to another place.
void ClientInput::Move(char* pTo)
{
    const std::size_t unread = Unread();
    if (unread > 0 && pTo != gptr())
    {
        std::copy(gptr(), _pEnd, pTo);  // never to the right within one buffer
    }
    setg(pTo, pTo, pTo);
    _pEnd = pTo + unread;
}

/// True when there was a large buffer.
bool ClientInput::ReleaseLargeBuffer()
{
    if (_touched <= KeptBytes)
    {
        return false;
    }
    _pBuffer.reset();
    _capacity = 0;
    _touched = 0;
    setg(nullptr, nullptr, nullptr);
    _pEnd = nullptr;
    return true;
}

}  // namespace korlo::daemon
