#pragma once
// What a client sends, as a stream buffer.

#include <cstddef>
#include <memory>
#include <streambuf>

#include "OutgoingQueue.h"
#include "korlo/osa/TcpSocket.h"

namespace korlo::daemon
{

/// The way in of one connection, one request after the other, each up to a limit; a request that goes beyond it breaks
/// the connection. Whoever waits here for input sends what waits in the connection's queue meanwhile.
///
/// Input comes in one system call for up to 64 KiB. Memory that a large request took is given back before the next
/// wait.
///
/// Thread safety: none of its own; belongs to the connection's own thread.
class ClientInput : public std::streambuf
{
public:
    /// @param socket borrowed, connected.
    /// @param queue borrowed; the way out of the same connection.
    /// @param maxMessage the most bytes of one request.
    ClientInput(osa::TcpSocket& socket, OutgoingQueue& queue, std::size_t maxMessage);

    /// Other threads may send from now on: a wait for input must notice what they leave in the queue.
    void ExpectNotifications() { _expectsNotifications = true; }

    /// Counts the bytes of the next request from here on.
    void BeginRequest();

    /// Waits until the queue is small. Input is taken into memory meanwhile, as much as one request may hold: a client
    /// that must get rid of its request before it reads the responses is not kept from it.
    void HoldBack();

    /// Waits until all that is in the queue has been sent, the connection is broken, or nothing of it could be sent for
    /// `timeoutMs`. False in the last case.
    bool SendRest(unsigned int timeoutMs);

    /// True when a part of a request was read.
    bool IsInsideRequest() const { return TakenByRequest() > 0; }

protected:
    int_type underflow() override;

private:
    std::size_t Unread() const { return static_cast<std::size_t>(_pEnd - gptr()); }
    std::size_t TakenByRequest() const { return _takenBefore + static_cast<std::size_t>(gptr() - _pRequest); }

    bool Fill();
    bool ReleaseLargeBuffer();
    void WaitForInput();
    void Receive();
    void MakeRoom();
    void Move(char* pTo);
    void ShowRequest();

    osa::TcpSocket& _socket;
    OutgoingQueue& _queue;
    const std::size_t _maxMessage;
    bool _expectsNotifications = false;
    bool _ended = false;  // the client sends no more

    std::unique_ptr<char[]> _pBuffer;  // what was received and not read lies between the get pointer and _pEnd
    std::size_t _capacity = 0;
    std::size_t _touched = 0;  // how much of the buffer was ever used; the system provides no memory for the rest
    char* _pEnd = nullptr;

    const char* _pRequest = nullptr;  // where the request begins in the buffer, or goes on
    std::size_t _takenBefore = 0;     // of the request, out of what the buffer held before
};

}  // namespace korlo::daemon
