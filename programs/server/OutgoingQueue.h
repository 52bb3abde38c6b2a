#pragma once
// What a client's socket does not take at once.

#include <atomic>
#include <cstddef>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "korlo/osa/TcpSocket.h"

namespace korlo::daemon
{

class NotificationRound;

/// The way out of one connection. Nobody who sends ever waits for the socket: what it does not take at once is kept
/// here, until the connection's own thread sends it as room appears.
///
/// What other threads send, the notifications, may fill the queue up to a limit; beyond it the connection is broken.
/// What the connection's own thread sends does not count: that thread sees the queue and holds itself back.
///
/// A thread that has a NotificationRound leaves its bytes here and sends them, with what has come to them, at the end
/// of its round.
///
/// Thread safety: all methods, from any thread, but Adopt and Drain, which belong to the connection's own. The socket
/// may go once the queue is broken, whoever still holds the queue.
class OutgoingQueue : public std::enable_shared_from_this<OutgoingQueue>
{
public:
    /// @param socket borrowed, connected.
    /// @param maxBacklog the most bytes of other threads that may wait.
    OutgoingQueue(osa::TcpSocket& socket, std::size_t maxBacklog);
    OutgoingQueue(const OutgoingQueue&) = delete;
    OutgoingQueue& operator=(const OutgoingQueue&) = delete;
    ~OutgoingQueue() = default;

    /// Makes the calling thread the connection's own. Before any other thread sends.
    void Adopt() { _ownThread = std::this_thread::get_id(); }

    /// Sends the bytes, behind those that wait already, in one system call when the socket takes them all; keeps the
    /// rest. False when the connection is broken.
    bool Send(const char* bytes, std::size_t size);

    /// Sends what waits, as far as the socket takes it without waiting.
    void Drain();

    /// The same at the end of another thread's round.
    void SendGathered();

    std::size_t GetPendingBytes() const { return _pendingBytes.load(std::memory_order_acquire); }

    /// Ends the connection, at once and in both directions; nothing more is sent. The first reason counts.
    /// @param reason for the log; empty when nothing needs to be said.
    void Break(const std::string& reason);

    bool IsBroken() const { return _isBroken.load(std::memory_order_acquire); }
    std::string GetReason() const;

private:
    /// A run of bytes in the queue.
    struct Run
    {
        std::size_t size;
        bool isForeign;  // of other threads
    };

    template <typename Step>
    void Guarded(Step step);
    bool IsOwnThread() const { return std::this_thread::get_id() == _ownThread; }
    std::size_t SendNow(const char* bytes, std::size_t size);
    void SendPending();
    void SendOrKeep(const char* bytes, std::size_t size);
    void Gather(NotificationRound& round, const char* bytes, std::size_t size);
    void Keep(const char* bytes, std::size_t size);
    void Drop(std::size_t size);
    void BreakLocked(const std::string& reason);

    osa::TcpSocket& _socket;
    const std::size_t _maxBacklog;
    std::thread::id _ownThread;

    std::atomic<std::size_t> _pendingBytes = 0;  // changes under _mutex
    std::atomic<bool> _isBroken = false;         // changes under _mutex

    mutable std::mutex _mutex;  // guards the rest; nobody waits for a socket while holding it
    std::string _bytes;         // those before _sent are gone already
    std::size_t _sent = 0;
    std::vector<Run> _runs;  // of the bytes that wait, in order
    std::size_t _foreignBytes = 0;
    bool _waitsForRoom = false;  // what waits does so because the socket did not take it
    bool _isInRound = false;     // some thread will call SendGathered
    std::string _reason;
};

}  // namespace korlo::daemon
