#pragma once
// What a client's socket does not take at once.

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "PlainMutex.h"
#include "korlo/osa/TcpSocket.h"

namespace korlo::daemon
{

class OutgoingQueue;

/// Sends later what is left in queues now.
///
/// Thread safety: called on any thread, with the lock of the queue held.
class IQueueCollector
{
public:
    virtual ~IQueueCollector() = default;

    /// @return true when somebody is going to call SendGathered of the queue; false when its bytes must leave at once.
    virtual bool Collect(OutgoingQueue& queue) = 0;

    /// The socket has refused what another thread than the connection's own has sent.
    /// @return true when somebody waits for room from now on, and calls DrainAwaited of the queue until that returns
    ///         false. Else it is left to the connection's own thread, whose TcpSocket::Wait is woken.
    /// @throws std::exception when the system has no means for it: the connection is broken then.
    virtual bool AwaitRoom(OutgoingQueue& queue, osa::TcpSocket& socket)
    {
        static_cast<void>(queue);
        socket.Wake();
        return false;
    }
};

/// The way out of one connection. Nobody who sends ever waits for the socket: what it refuses is kept here, and sent as
/// room appears: by the connection's own thread while that waits for room (OwnWait), and else, if notifications are
/// kept, by whoever the collector has for it; never by both, of whom one could take the room that the other waits for.
/// Notifications, which are what other threads send, are gathered where a collector takes care of the queue, so that
/// many leave in one system call.
///
///     state      entered when                                who sends what is kept                      next
///     ---------  ------------------------------------------  ------------------------------------------  ----------
///     Empty      all was sent                                -                                           any
///     Gathering  a notification came, and the collector has  SendGathered, the next message of the own   Empty, or
///                taken the queue                             thread, or the notification that makes it   Refused
///                                                            more than 64 KiB
///     Refused    the socket did not take all it was offered  the own thread, by Drain; whoever awaits    Empty, or
///                                                            room, by DrainAwaited; what comes while     Broken
///                                                            too much is kept offers it once more
///     Broken     the connection was lost or ended, memory    nobody, ever                                -
///                ran out, or the client does not read
///
/// A client does not read when more notifications than the limit are kept in Refused, and the socket refuses them once
/// more when the next one comes. What is gathered was not refused and does not count; nor do messages of the own
/// thread, which sees the queue and holds itself back. A notification that is larger than the limit by itself counts as
/// one: the next such is too many. So a queue holds the limit, the largest notification and 64 KiB at most.
///
/// Thread safety: all methods, from any thread, but Adopt and Drain, which belong to the connection's own. The mutex is
/// held for no wait; the collector's is taken inside it. The socket may go once the queue is broken, whoever still
/// holds the queue.
class OutgoingQueue : public std::enable_shared_from_this<OutgoingQueue>
{
public:
    /// @param socket borrowed, connected.
    /// @param maxBacklog the most bytes of notifications that the socket may have refused.
    /// @param collector borrowed; a queue that it takes must be owned by a std::shared_ptr.
    OutgoingQueue(osa::TcpSocket& socket, std::size_t maxBacklog, IQueueCollector& collector);
    OutgoingQueue(const OutgoingQueue&) = delete;
    OutgoingQueue& operator=(const OutgoingQueue&) = delete;
    ~OutgoingQueue() = default;

    /// Makes the calling thread the connection's own. Before any other thread sends.
    void Adopt() { _ownThread = std::this_thread::get_id(); }

    /// Sends one message, behind those that wait already, in one system call when the socket takes them all; keeps the
    /// rest. False when the connection is broken.
    bool Send(const char* bytes, std::size_t size) KORLO_EXCLUDES(_mutex);

    /// Offers the socket what it refused before.
    void Drain() KORLO_EXCLUDES(_mutex);

    /// The same, for whoever was told to await room; true when he is to go on doing so.
    bool DrainAwaited() KORLO_EXCLUDES(_mutex);

    /// Lets the connection's own thread be the only one that drains the queue, to the end of the scope. It calls Drain
    /// whenever there is room, or leaves the scope.
    ///
    /// Thread safety: none of its own; lives on the stack of the connection's own thread.
    class OwnWait
    {
    public:
        /// @param queue borrowed.
        explicit OwnWait(OutgoingQueue& queue) : _queue(queue) { _queue.SetOwnWait(true); }
        OwnWait(const OwnWait&) = delete;
        OwnWait& operator=(const OwnWait&) = delete;
        ~OwnWait() { _queue.SetOwnWait(false); }

    private:
        OutgoingQueue& _queue;
    };

    /// Offers the socket what was gathered.
    void SendGathered() KORLO_EXCLUDES(_mutex);

    /// How much the socket has refused.
    std::size_t GetRefusedBytes() const { return _refusedBytes.load(std::memory_order_acquire); }

    /// How much the socket has taken so far.
    std::uint64_t GetSentBytes() const { return _sentBytes.load(std::memory_order_relaxed); }

    /// Ends the connection, at once and in both directions; nothing more is sent. The first reason counts.
    /// @param reason for the log; empty when nothing needs to be said.
    void Break(const std::string& reason) KORLO_EXCLUDES(_mutex);

    bool IsBroken() const { return _state.load(std::memory_order_acquire) == Broken; }
    std::string GetReason() const KORLO_EXCLUDES(_mutex);

private:
    enum State
    {
        Empty,
        Gathering,
        Refused,
        Broken
    };

    enum Kind : std::size_t
    {
        Own,
        Notification,
        LargeNotification,
        Kinds
    };

    /// Bytes of one kind in the queue.
    struct Run
    {
        std::size_t size;
        Kind kind;
    };

    bool IsOwnThread() const { return std::this_thread::get_id() == _ownThread; }
    bool Fits(Kind kind, std::size_t size) const KORLO_REQUIRES(_mutex);
    void Take(const char* bytes, std::size_t size) KORLO_REQUIRES(_mutex);
    void LimitBacklog(Kind kind, std::size_t size) KORLO_REQUIRES(_mutex);
    bool IsGathered(Kind kind, std::size_t size) KORLO_REQUIRES(_mutex);
    std::size_t SendNow(const char* bytes, std::size_t size) KORLO_REQUIRES(_mutex);
    void Offer() KORLO_REQUIRES(_mutex);
    void Settle() KORLO_REQUIRES(_mutex);
    void SetOwnWait(bool isWaiting) KORLO_EXCLUDES(_mutex);
    void LetAwaitRoom() KORLO_REQUIRES(_mutex);
    std::size_t KeptNotifications() const KORLO_REQUIRES(_mutex);
    void Keep(const char* bytes, std::size_t size, Kind kind) KORLO_REQUIRES(_mutex);
    void Drop(std::size_t size) KORLO_REQUIRES(_mutex);
    void BreakLocked(const std::string& reason) KORLO_REQUIRES(_mutex);

    osa::TcpSocket& _socket;
    const std::size_t _maxBacklog;
    IQueueCollector& _collector;
    std::thread::id _ownThread;

    std::atomic<std::size_t> _refusedBytes = 0;  // changes under _mutex
    std::atomic<State> _state = Empty;           // changes under _mutex
    std::atomic<std::uint64_t> _sentBytes = 0;   // changes under _mutex

    mutable PlainMutex _mutex;
    std::string _bytes KORLO_GUARDED_BY(_mutex);  // those before _sent are gone already
    std::size_t _sent KORLO_GUARDED_BY(_mutex) = 0;
    std::vector<Run> _runs KORLO_GUARDED_BY(_mutex);                     // of the bytes that are kept, in order
    std::array<std::size_t, Kinds> _kept KORLO_GUARDED_BY(_mutex) = {};  // the sum of the runs of each kind
    bool _isCollected KORLO_GUARDED_BY(_mutex) = false;                  // somebody will call SendGathered
    bool _isAwaited KORLO_GUARDED_BY(_mutex) = false;                    // somebody will call DrainAwaited
    bool _isOwnWait KORLO_GUARDED_BY(_mutex) = false;                    // there is an OwnWait
    std::string _reason KORLO_GUARDED_BY(_mutex);
};

}  // namespace korlo::daemon
