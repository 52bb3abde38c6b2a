#pragma once
// Gathers what one thread leaves in the queues of others, to send it at once.

#include <chrono>
#include <memory>
#include <vector>

namespace korlo::daemon
{

class OutgoingQueue;

/// While a connection's thread carries out requests that have come already, the notifications of its changes wait in
/// the queues of the subscribers; they are sent before the thread waits for more input. So changes that come faster
/// than they could be told one by one cost each subscriber one system call for many. Where requests take their time,
/// nothing waits for the next one.
///
/// Thread safety: none of its own; it belongs to the thread that makes it, for which Current tells it.
class NotificationRound
{
public:
    using Clock = std::chrono::steady_clock;
    using ReadClock = Clock::time_point (*)();

    /// @param readClock tells the time: what took long is measured by it.
    explicit NotificationRound(ReadClock readClock = &Clock::now);
    NotificationRound(const NotificationRound&) = delete;
    NotificationRound& operator=(const NotificationRound&) = delete;

    /// Sends what was gathered.
    ~NotificationRound();

    /// That of the calling thread, or null.
    static NotificationRound* Current();

    /// Another request begins, without waiting: sends what was gathered if that took long.
    void OnRequest();

    /// Sends what was gathered.
    void Flush();

    /// Holds a queue in which something was left.
    void Add(std::shared_ptr<OutgoingQueue> pQueue);

private:
    ReadClock _readClock;
    std::vector<std::shared_ptr<OutgoingQueue>> _queues;
    Clock::time_point _requestBegan;
};

}  // namespace korlo::daemon
