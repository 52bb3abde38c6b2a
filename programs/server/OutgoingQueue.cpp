#include "OutgoingQueue.h"

#include <algorithm>
#include <system_error>

#include "NotificationRound.h"

namespace korlo::daemon
{
namespace
{

constexpr unsigned int DoNotWait = 0;
constexpr std::size_t GatheredBytes = 64 * 1024;  // what one system call moves well; more is not gathered

}  // namespace

OutgoingQueue::OutgoingQueue(osa::TcpSocket& socket, std::size_t maxBacklog) : _socket(socket), _maxBacklog(maxBacklog)
{
}

bool OutgoingQueue::Send(const char* bytes, std::size_t size)
{
    const std::lock_guard lock(_mutex);
    if (!_isBroken)
    {
        Guarded([&] { SendOrKeep(bytes, size); });
    }
    return !_isBroken;
}

/// No memory, or no descriptor: this client would get a part of a message, and nobody else has to do with it.
template <typename Step>
void OutgoingQueue::Guarded(Step step)
{
    try
    {
        step();
    }
    catch (const std::exception& exception)
    {
        BreakLocked(exception.what());
    }
}

void OutgoingQueue::SendOrKeep(const char* bytes, std::size_t size)
{
    NotificationRound* const pRound = IsOwnThread() ? nullptr : NotificationRound::Current();
    if (pRound != nullptr && !_waitsForRoom)
    {
        Gather(*pRound, bytes, size);
        return;
    }
    const std::size_t sent = _runs.empty() ? SendNow(bytes, size) : 0;
    if (sent == size || _isBroken)
    {
        return;
    }
    const bool wasGathered = !_runs.empty() && !_waitsForRoom;
    Keep(bytes + sent, size - sent);
    if (wasGathered)
    {
        SendPending();
    }
    else if (!_waitsForRoom && !_isBroken)
    {
        _waitsForRoom = true;
        if (!IsOwnThread())
        {
            _socket.Wake();  // its thread does not wait for room yet
        }
    }
}

void OutgoingQueue::Gather(NotificationRound& round, const char* bytes, std::size_t size)
{
    Keep(bytes, size);
    if (_isBroken)
    {
        return;
    }
    if (_bytes.size() - _sent > GatheredBytes)
    {
        SendPending();
    }
    else if (!_isInRound)
    {
        round.Add(shared_from_this());
        _isInRound = true;
    }
}

void OutgoingQueue::SendGathered()
{
    const std::lock_guard lock(_mutex);
    _isInRound = false;
    if (!_isBroken && !_runs.empty() && !_waitsForRoom)
    {
        Guarded([this] { SendPending(); });
    }
}

/// What the socket does not take waits for room from then on.
void OutgoingQueue::SendPending()
{
    if (_isBroken)
    {
        return;
    }
    Drop(SendNow(_bytes.data() + _sent, _bytes.size() - _sent));
    _waitsForRoom = !_runs.empty();
    if (_waitsForRoom && !IsOwnThread())
    {
        _socket.Wake();
    }
}

/// What the socket does not take in one call it does not take now.
std::size_t OutgoingQueue::SendNow(const char* bytes, std::size_t size)
{
    const osa::TcpSocket::IoResult result = _socket.WriteSome(bytes, size, DoNotWait);
    if (result.status == osa::TcpSocket::Failed)
    {
        BreakLocked("the connection was lost: " + std::generic_category().message(result.error));
    }
    return result.bytes;
}

void OutgoingQueue::Keep(const char* bytes, std::size_t size)
{
    const bool isForeign = !IsOwnThread();
    if (isForeign && _foreignBytes + size > _maxBacklog)
    {
        BreakLocked("it does not read its notifications: " + std::to_string(_foreignBytes + size) + " bytes wait, " +
                    std::to_string(_maxBacklog) + " may");
        return;
    }
    _bytes.append(bytes, size);
    if (_runs.empty() || _runs.back().isForeign != isForeign)
    {
        _runs.push_back({0, isForeign});
    }
    _runs.back().size += size;
    _foreignBytes += isForeign ? size : 0;
    _pendingBytes = _bytes.size() - _sent;
}

void OutgoingQueue::Drain()
{
    const std::lock_guard lock(_mutex);
    if (!_runs.empty())
    {
        SendPending();
    }
}

void OutgoingQueue::Drop(std::size_t size)
{
    constexpr std::size_t smallBytes = 64 * 1024;
    _sent += size;
    while (size > 0)
    {
        Run& run = _runs.front();
        const std::size_t part = std::min(size, run.size);
        run.size -= part;
        size -= part;
        _foreignBytes -= run.isForeign ? part : 0;
        if (run.size == 0)
        {
            _runs.erase(_runs.begin());
        }
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
    _pendingBytes = _bytes.size() - _sent;
}

void OutgoingQueue::Break(const std::string& reason)
{
    const std::lock_guard lock(_mutex);
    BreakLocked(reason);
}

void OutgoingQueue::BreakLocked(const std::string& reason)
{
    if (!_isBroken)
    {
        _isBroken = true;
        std::string().swap(_bytes);
        _runs.clear();
        _sent = 0;
        _pendingBytes = 0;
        _socket.Close();  // wakes its thread
        _reason = reason;
    }
}

std::string OutgoingQueue::GetReason() const
{
    const std::lock_guard lock(_mutex);
    return _reason;
}

}  // namespace korlo::daemon
