#include "OutgoingQueue.h"
#include "korlo/osa/Exception.h"

#include <algorithm>
#include <exception>

namespace korlo::daemon
{
namespace
{

constexpr unsigned int DoNotWait = 0;
constexpr std::size_t GatheredBytes = 64 * 1024;  // what one system call moves well; more is not gathered

}  // namespace

OutgoingQueue::OutgoingQueue(osa::TcpSocket& socket, std::size_t maxBacklog, IQueueCollector& collector)
    : _socket(socket),
      _maxBacklog(maxBacklog),
      _collector(collector)
{
}

bool OutgoingQueue::Send(const char* bytes, std::size_t size)
{
    const PlainLock lock(_mutex);
    try
    {
        Take(bytes, size);
    }
    catch (const std::exception& exception)
    {
        // No memory: this client would get a part of a message, and nobody else has to do with it.
        BreakLocked(exception.what());
    }
    return _state != Broken;
}

void OutgoingQueue::Take(const char* bytes, std::size_t size)
{
    const Kind kind = IsOwnThread() ? Own : size > _maxBacklog ? LargeNotification : Notification;
    if (_state == Refused)
    {
        LimitBacklog(kind, size);
    }
    if (_state == Broken)
    {
        return;
    }
    if (_state == Refused)
    {
        Keep(bytes, size, kind);
        Settle();
    }
    else if (IsGathered(kind, size))
    {
        Keep(bytes, size, kind);
        _state = Gathering;
    }
    else if (_state == Gathering)
    {
        Keep(bytes, size, kind);
        Offer();
    }
    else if (const std::size_t sent = SendNow(bytes, size); sent < size && _state != Broken)
    {
        Keep(bytes + sent, size - sent, kind);
        Settle();
    }
}

/// Breaks the connection when too much was refused already; offers it once more before that, since the own thread may
/// not have had the time to use the room that a client made by reading.
void OutgoingQueue::LimitBacklog(Kind kind, std::size_t size)
{
    if (Fits(kind, size))
    {
        return;
    }
    Offer();
    if (_state == Refused && !Fits(kind, size))
    {
        BreakLocked("it does not read its notifications: " + std::to_string(KeptNotifications() + size) +
                    " bytes wait, " + std::to_string(_maxBacklog) + " may");
    }
}

bool OutgoingQueue::Fits(Kind kind, std::size_t size) const
{
    return kind == Own || (kind == Notification ? _kept[kind] + size <= _maxBacklog : _kept[kind] == 0);
}

bool OutgoingQueue::IsGathered(Kind kind, std::size_t size)
{
    if (kind == Own || _bytes.size() - _sent + size > GatheredBytes)
    {
        return false;
    }
    _isCollected = _isCollected || _collector.Collect(*this);
    return _isCollected;
}

void OutgoingQueue::Drain()
{
    const PlainLock lock(_mutex);
    if (_state == Refused)
    {
        Offer();
    }
}

bool OutgoingQueue::DrainAwaited()
{
    const PlainLock lock(_mutex);
    if (_state == Refused && !_isOwnWait)
    {
        Offer();
    }
    _isAwaited = _state == Refused && !_isOwnWait;
    return _isAwaited;
}

void OutgoingQueue::SetOwnWait(bool isWaiting)
{
    const PlainLock lock(_mutex);
    _isOwnWait = isWaiting;
    LetAwaitRoom();  // what others have left meanwhile, and the own thread has not sent
}

std::size_t OutgoingQueue::KeptNotifications() const
{
    return _kept[Notification] + _kept[LargeNotification];
}

/// Where notifications are kept for which nobody waits for room.
void OutgoingQueue::LetAwaitRoom()
{
    if (_state != Refused || _isAwaited || _isOwnWait || KeptNotifications() == 0)
    {
        return;
    }
    try
    {
        _isAwaited = _collector.AwaitRoom(*this, _socket);
    }
    catch (const std::exception& exception)
    {
        BreakLocked(exception.what());  // no descriptor is left
    }
}

void OutgoingQueue::SendGathered()
{
    const PlainLock lock(_mutex);
    _isCollected = false;
    if (_state == Gathering)
    {
        Offer();
    }
}

/// Offers the socket all that is kept.
void OutgoingQueue::Offer()
{
    Drop(SendNow(_bytes.data() + _sent, _bytes.size() - _sent));
    if (_state != Broken)
    {
        Settle();
    }
}

/// The socket has been offered all that is kept: what is left was refused.
void OutgoingQueue::Settle()
{
    _refusedBytes = _bytes.size() - _sent;
    _state = _refusedBytes == 0 ? Empty : Refused;
    if (!IsOwnThread())
    {
        LetAwaitRoom();
    }
}

/// What the socket does not take in one call it does not take now.
std::size_t OutgoingQueue::SendNow(const char* bytes, std::size_t size)
{
    const osa::TcpSocket::IoResult result = _socket.WriteSome(bytes, size, DoNotWait);
    if (result.status == osa::TcpSocket::Failed)
    {
        BreakLocked("the connection was lost: " + osa::SystemReason(result.error));
    }
    _sentBytes.store(_sentBytes + result.bytes, std::memory_order_relaxed);
    return result.bytes;
}

void OutgoingQueue::Keep(const char* bytes, std::size_t size, Kind kind)
{
    if (_runs.empty() || _runs.back().kind != kind)
    {
        _runs.push_back({0, kind});
    }
    _bytes.append(bytes, size);
    _runs.back().size += size;
    _kept[kind] += size;
}

void OutgoingQueue::Drop(std::size_t size)
{
    constexpr std::size_t smallBytes = 64 * 1024;
    _sent += size;
    auto run = _runs.begin();
    for (; run != _runs.end() && run->size <= size; ++run)
    {
        size -= run->size;
        _kept[run->kind] -= run->size;
    }
    _runs.erase(_runs.begin(), run);
    if (size > 0)
    {
        _runs.front().size -= size;
        _kept[_runs.front().kind] -= size;
    }
    if (_runs.empty())
    {
        std::string().swap(_bytes);
        _sent = 0;
    }
    else if (_sent > smallBytes && _sent > _bytes.size() / 2)
    {
        _bytes.erase(0, _sent);
        _sent = 0;
    }
}

void OutgoingQueue::Break(const std::string& reason)
{
    const PlainLock lock(_mutex);
    BreakLocked(reason);
}

void OutgoingQueue::BreakLocked(const std::string& reason)
{
    if (_state != Broken)
    {
        _state = Broken;
        std::string().swap(_bytes);
        _runs.clear();
        _sent = 0;
        _refusedBytes = 0;
        _socket.Close();  // wakes its thread
        _reason = reason;
    }
}

std::string OutgoingQueue::GetReason() const
{
    const PlainLock lock(_mutex);
    return _reason;
}

}  // namespace korlo::daemon
