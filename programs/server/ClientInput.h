#pragma once
// What a client sends, as a stream buffer.

#include <cstddef>
#include <functional>
#include <memory>
#include <streambuf>

#include "OutgoingQueue.h"
#include "korlo/osa/TcpSocket.h"

namespace korlo::daemon
{

/// The way in of one connection, one request after the other, each up to a limit; a request that goes beyond it breaks
/// the connection. Whoever waits here for input drains the connection's queue meanwhile, if anything was refused
/// before; what other threads leave there later is for whoever the queue's collector has for it.
///
/// Input comes in one system call for up to 1 KiB, and where that is not all, for up to 64 KiB from then on. A thread
/// that waits keeps the small buffer alone: memory that a large request took is given back before. What comes, and when
/// the thread waits:
///
///     state        entered when                            what happens                                   next
///     -----------  --------------------------------------  ---------------------------------------------  -----------
///     Reading      something was received                  the request is read from memory                any
///     Waiting      all of it was read                      mayWait, then waits for input and for room     Reading, or
///                                                                                                         Ended
///     HeldBack     a request ends, and more than 64 KiB    mayWait, then waits for room, and for input    Reading, or
///                  of output were refused                  while less than one largest request is unread  Ended
///     Ended        the client sends no more, mayWait says  what was received is read, then the end of     -
///                  no, or the connection is broken         the stream
///
/// Thread safety: none of its own; belongs to the connection's own thread.
class ClientInput : public std::streambuf
{
public:
    /// @param socket borrowed, connected.
    /// @param queue borrowed; the way out of the same connection.
    /// @param maxMessage the most bytes of one request.
    /// @param mayWait called before each wait for the client; false ends the wait, and the input where it is needed.
    ClientInput(osa::TcpSocket& socket, OutgoingQueue& queue, std::size_t maxMessage, std::function<bool()> mayWait);

    /// Counts the bytes of the next request from here on.
    void BeginRequest();

    /// Waits until the queue is small. Input is taken into memory meanwhile, as much as one request may hold: a client
    /// that must get rid of its request before it reads the responses is not kept from it.
    void HoldBack();

    /// How much of the request was read.
    std::size_t GetRequestBytes() const { return Position() - _request; }

    /// How much was received so far. May pass the greatest number and begin anew.
    std::size_t GetReceivedBytes() const { return _end; }

    /// How much was received and not read.
    std::size_t GetUnreadBytes() const { return _end - Position(); }

protected:
    int_type underflow() override;

private:
    std::size_t Position() const { return _base + static_cast<std::size_t>(gptr() - eback()); }

    bool Fill();
    bool ReceiveMore();
    void UseEmptyBuffer(std::size_t capacity);
    void WaitForInput();
    bool Receive(unsigned int timeoutMs);
    void MakeRoom();
    void MoveTo(char* pTo);
    void ShowRequest();

    osa::TcpSocket& _socket;
    OutgoingQueue& _queue;
    const std::size_t _maxMessage;
    const std::function<bool()> _mayWait;
    bool _ended = false;  // the client sends no more

    std::unique_ptr<char[]> _pBuffer;  // begins with the get area
    std::size_t _capacity = 0;

    // Offsets in all that the client has sent. They may pass the greatest number and begin anew: only their
    // differences count, which a buffer can hold.
    std::size_t _base = 0;     // of the buffer
    std::size_t _request = 0;  // of the request's first byte, which may have left the buffer
    std::size_t _end = 0;      // behind what was received
};

}  // namespace korlo::daemon
