#pragma once
// Sends what the sockets of slow subscribers have refused.

#include <cstddef>
#include <memory>
#include <vector>

#include "OutgoingQueue.h"
#include "PlainMutex.h"
#include "korlo/osa/Thread.h"

struct pollfd;

namespace korlo::daemon
{

/// The queues whose sockets have refused a notification, and one thread that drains each as its socket has room. So the
/// thread of a connection waits for its client's input alone; to be woken from that wait, too, would take a descriptor
/// for each connection, and a system call more for each request. The thread here begins with the first refusal.
///
/// A queue is here from the refusal until its socket refuses nothing any more or the connection is broken, and never
/// twice: DrainAwaited tells whether it stays, and notes it under the queue's own mutex. A connection that is broken is
/// shut down, which ends the wait for its socket. Its descriptor may belong to something else by the time it is waited
/// for: then the broken queue is looked at in vain, at the latest when that has room, and leaves. Nobody waits here for
/// one client: what drains a queue is one system call, which does not block.
///
/// Thread safety: Add from any thread. The mutex is taken inside those of queues, and none is taken inside it.
class RefusedQueues final : private osa::Runnable
{
public:
    RefusedQueues() : _thread("Refused", this, StackBytes, 0) {}
    RefusedQueues(const RefusedQueues&) = delete;
    RefusedQueues& operator=(const RefusedQueues&) = delete;

    /// Nobody adds a queue any more.
    ~RefusedQueues() override;

    /// Drains the queue from now on.
    /// @param queue is owned by a std::shared_ptr.
    /// @param descriptor of its socket.
    /// @throws std::exception when the system has no descriptor, thread or memory for it; the queue is not taken then.
    void Add(OutgoingQueue& queue, int descriptor) KORLO_EXCLUDES(_mutex);

private:
    /// A queue, and the descriptor of its socket.
    struct Refused
    {
        std::shared_ptr<OutgoingQueue> pQueue;
        int descriptor;
    };

    static constexpr unsigned int StackBytes = 32 * 1024;

    void Run() override;
    void Start() KORLO_REQUIRES(_mutex);
    bool WaitForRoom(std::vector<pollfd>& waited) KORLO_EXCLUDES(_mutex);
    bool ListSockets(std::vector<pollfd>& waited) KORLO_EXCLUDES(_mutex);
    void DrainReady(const std::vector<pollfd>& waited) KORLO_EXCLUDES(_mutex);
    std::shared_ptr<OutgoingQueue> At(std::size_t index) KORLO_EXCLUDES(_mutex);
    void Remove(std::size_t index) KORLO_EXCLUDES(_mutex);
    void BreakAll(const char* reason) KORLO_EXCLUDES(_mutex);

    PlainMutex _mutex;
    int _event KORLO_GUARDED_BY(_mutex) = -1;  // wakes the thread; made before it
    bool _isRunning KORLO_GUARDED_BY(_mutex) = false;
    bool _isStopping KORLO_GUARDED_BY(_mutex) = false;
    std::vector<Refused> _queues KORLO_GUARDED_BY(_mutex);  // others append, the thread alone removes

    osa::Thread _thread;  // last
};

}  // namespace korlo::daemon
