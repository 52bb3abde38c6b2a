#pragma once
// Sends notifications together where many changes come at once.

#include <chrono>
#include <memory>
#include <optional>
#include <vector>

#include "OutgoingQueue.h"
#include "PlainMutex.h"
#include "RefusedQueues.h"

namespace korlo::daemon
{

/// The queues of all connections of a server in which notifications were left, for one system call each.
///
/// No notification that was left here waits for anything slow:
/// 1. The thread that left it calls Send before it waits for its client or does anything that takes long (see
///    NotificationRound). Send takes care of all queues, so whose bytes lie in which does not matter. A queue that
///    another thread has taken out of here by then is being sent by that thread, which waits for nothing meanwhile.
/// 2. Between two calls of Send a thread may have to wait for a lock, of the store for example, which a slow request of
///    another thread holds. Such a request is announced: announcing it sends what is here, and nothing more comes until
///    it is over. A thread that holds the lock announced it before it took it; so whoever waits for the lock either
///    left its bytes before the announcement, which sent them, or had to send them at once.
///
/// Thread safety: all methods, from any thread. The mutex is taken inside those of queues, and none is taken inside it.
class GatheredQueues final : public IQueueCollector
{
public:
    /// Takes every queue, unless a slow request is under way.
    bool Collect(OutgoingQueue& queue) override KORLO_EXCLUDES(_mutex);

    /// Has what the socket refused sent by the one thread that does so for all connections.
    bool AwaitRoom(OutgoingQueue& queue, osa::TcpSocket& socket) override
    {
        _refused.Add(queue, socket.GetDescriptor());
        return true;
    }

    /// Sends what is in the queues.
    void Send() KORLO_EXCLUDES(_mutex);

    /// Sends what is in the queues, and takes none until EndSlowRequest was called as often as this.
    void BeginSlowRequest() KORLO_EXCLUDES(_mutex);
    void EndSlowRequest() KORLO_EXCLUDES(_mutex);

private:
    PlainMutex _mutex;
    std::vector<std::shared_ptr<OutgoingQueue>> _queues KORLO_GUARDED_BY(_mutex);
    unsigned int _slowRequests KORLO_GUARDED_BY(_mutex) = 0;

    RefusedQueues _refused;
};

/// Decides, for one connection, when the notifications of its changes are sent. As long as its thread carries out
/// quick changes that have arrived already, one after the other, and for a few milliseconds, they are gathered; so
/// changes that come faster than they could be told one by one cost each subscriber one system call for many.
///
/// Thread safety: none of its own; belongs to the connection's thread.
class NotificationRound
{
public:
    using Clock = std::chrono::steady_clock;
    using ReadClock = Clock::time_point (*)();

    /// @param gathered borrowed.
    /// @param readClock tells the time.
    explicit NotificationRound(GatheredQueues& gathered, ReadClock readClock = &Clock::now);
    NotificationRound(const NotificationRound&) = delete;
    NotificationRound& operator=(const NotificationRound&) = delete;

    /// Sends what was gathered.
    ~NotificationRound();

    /// The request before is done. Sends what was gathered if the first of it has been waiting for long.
    void BeforeRequest();

    /// Lets the notifications of the request that comes now be gathered.
    void BeforeQuickChange();

    /// Announces a request that may wait for the disk, or for one that does. BeforeRequest ends it.
    void BeforeSlowRequest();

    /// Sends what was gathered; nothing when this connection has gathered nothing.
    void Send();

private:
    void EndSlowRequest();

    GatheredQueues& _gathered;
    const ReadClock _readClock;
    std::optional<Clock::time_point> _begin;  // of the first change since everything was sent
    bool _isSlow = false;
};

}  // namespace korlo::daemon
