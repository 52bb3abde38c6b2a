#pragma once
// A small bounded queue between threads.

#include <deque>
#include <queue>

#include "korlo/osa/Exception.h"
#include "korlo/osa/Mutex.h"
#include "korlo/osa/Semaphore.h"

namespace korlo::osa
{

/// Hands values from one thread to another, first in, first out. Sending never waits: a full queue is an error.
///
/// Thread safety: all methods, from any thread. A sender stores the item before it raises the semaphore, so whoever got
/// the semaphore finds an item; a receiver takes the semaphore before the mutex, so one that waits blocks nobody.
template <typename T>
class tMsgQueue
{
public:
    /// @param name labels the queue's mutex and semaphore in diagnostics.
    /// @param capacity the most items that may wait.
    tMsgQueue(const char* name, unsigned short capacity)
        : _mutex(name),
          _semaphore(name, capacity, 0),
          _capacity(capacity)
    {
    }

    tMsgQueue(const tMsgQueue&) = delete;
    tMsgQueue& operator=(const tMsgQueue&) = delete;

    /// Drops the items that are left; what pointers among them point to is not freed.
    virtual ~tMsgQueue() = default;

    /// Appends a copy of the item.
    /// @throws Exception "Message Queue Is Full"; the queue is then unchanged.
    void SendMsg(const T& item) KORLO_EXCLUDES(_mutex)
    {
        {
            const MutexAutoLock lock(&_mutex);
            if (_items.size() >= _capacity)
            {
                throw Exception("Message Queue Is Full");
            }
            _items.push(item);
        }
        _semaphore.Release();
    }

    /// Stores the oldest item in `item` and returns true, or returns false when the time is up, `item` untouched.
    bool TryGetMsg(T& item, unsigned int timeoutMs) KORLO_EXCLUDES(_mutex)
    {
        if (!_semaphore.TryLock(timeoutMs))
        {
            return false;
        }
        const MutexAutoLock lock(&_mutex);
        item = _items.front();
        _items.pop();
        return true;
    }

    /// The same, but a time-out is an exception; returns true.
    /// @throws LockException "Lock Timeout" with the error Timeout.
    bool GetMsg(T& item, unsigned int timeoutMs) KORLO_EXCLUDES(_mutex)
    {
        if (!TryGetMsg(item, timeoutMs))
        {
            throw LockException("Lock Timeout", LockException::Timeout);
        }
        return true;
    }

    /// How many items wait now.
    unsigned int Size() KORLO_EXCLUDES(_mutex)
    {
        const MutexAutoLock lock(&_mutex);
        return static_cast<unsigned int>(_items.size());
    }

private:
    std::queue<T, std::deque<T>> _items KORLO_GUARDED_BY(_mutex);
    Mutex _mutex;
    Semaphore _semaphore;  // counts what a receiver may take
    const unsigned short _capacity;
};

}  // namespace korlo::osa
