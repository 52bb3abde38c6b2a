#include "korlo/osa/ReadWriteLock.h"

#include "korlo/osa/Exception.h"
#include "osa/TimedWait.h"

// While nobody waits, `_state` alone is the lock, and taking and releasing it is one exchange. The first who has to
// wait sets Contended under `_mutex`. From then on every exchange fails, so that all the rest happens under `_mutex`,
// until the last waiter has gone and clears the flag.
//
// Under contention:
//
//   who waits          | goes in when                                       | which comes about by
//   -------------------+----------------------------------------------------+---------------------------------------
//   a reader           | nobody writes and no writer waits                  | a writer that gives up
//   an admitted reader | nobody writes (it waited when a writer released)   | that writer's release
//   a writer           | nobody reads or writes, no admitted reader waits   | a release, a reader that gives up
//
// So neither side starves: readers stand behind a writer that waits, and those who stood there go before the next one.
// Whoever ends a step under `_mutex` wakes those whose turn it is (EndStep); an admitted reader whose time is up ends
// its step like the others, or the writers would wait for it forever.

namespace korlo::osa
{
namespace
{

constexpr unsigned int Contended = 1u << 31;
constexpr unsigned int Writing = 1u << 30;
constexpr unsigned int Readers = Writing - 1;

}  // namespace

ReadWriteLock::ReadWriteLock(const char* name) : _name(LockName(name))
{
}

// The lock below is one that clang knows nothing of; the annotations of the header are what it checks callers by.
void ReadWriteLock::ReadLock(unsigned int timeoutMs) KORLO_NO_THREAD_SAFETY_ANALYSIS
{
    if (!TryReadAtOnce() && !WaitToRead(timeoutMs))
    {
        ThrowLockTimeout("read/write lock for reading", _name, timeoutMs);
    }
}

// As ReadLock.
void ReadWriteLock::WriteLock(unsigned int timeoutMs) KORLO_NO_THREAD_SAFETY_ANALYSIS
{
    if (!TryWriteAtOnce() && !WaitToWrite(timeoutMs))
    {
        ThrowLockTimeout("read/write lock for writing", _name, timeoutMs);
    }
}

// As ReadLock.
void ReadWriteLock::Release() KORLO_NO_THREAD_SAFETY_ANALYSIS
{
    if (!TryReleaseAtOnce())
    {
        ReleaseToWaiters();
    }
}

bool ReadWriteLock::TryReadAtOnce()
{
    unsigned int state = _state.load(std::memory_order_relaxed);
    while (state < Readers)  // both flags are above all numbers of readers
    {
        if (_state.compare_exchange_weak(state, state + 1, std::memory_order_acquire, std::memory_order_relaxed))
        {
            return true;
        }
    }
    return false;
}

bool ReadWriteLock::TryWriteAtOnce()
{
    unsigned int free = 0;
    return _state.compare_exchange_strong(free, Writing, std::memory_order_acquire, std::memory_order_relaxed);
}

bool ReadWriteLock::TryReleaseAtOnce()
{
    unsigned int state = _state.load(std::memory_order_relaxed);
    while ((state & Contended) == 0)
    {
        if (state == 0)
        {
            ThrowNotHeld();
        }
        const unsigned int rest = state == Writing ? 0 : state - 1;
        if (_state.compare_exchange_weak(state, rest, std::memory_order_release, std::memory_order_relaxed))
        {
            return true;
        }
    }
    return false;
}

bool ReadWriteLock::WaitToRead(unsigned int timeoutMs)
{
    std::unique_lock lock(_mutex);
    _state.fetch_or(Contended);
    ++_waitingReaders;
    const unsigned int round = _writeRound;
    const auto admitted = [this, round] { return _writeRound != round; };
    const bool taken =
        WaitFor(_readersMayGo, lock, timeoutMs, [&] { return !IsWriting() && (_waitingWriters == 0 || admitted()); });
    --_waitingReaders;
    _admittedReaders -= admitted() ? 1 : 0;
    _state += taken ? 1 : 0;
    EndStep();
    return taken;
}

bool ReadWriteLock::WaitToWrite(unsigned int timeoutMs)
{
    std::unique_lock lock(_mutex);
    _state.fetch_or(Contended);
    ++_waitingWriters;
    const bool taken = WaitFor(_writerMayGo, lock, timeoutMs, [this] { return WriterMayGo(); });
    --_waitingWriters;
    _state |= taken ? Writing : 0;
    EndStep();
    return taken;
}

void ReadWriteLock::ReleaseToWaiters()
{
    const std::lock_guard lock(_mutex);
    _state.fetch_or(Contended);  // the last waiter may have gone since; then EndStep clears the flag again
    const bool held = (_state & (Writing | Readers)) != 0;
    if (IsWriting())
    {
        _state &= ~Writing;
        ++_writeRound;
        _admittedReaders = _waitingReaders;  // it was 0, or this writer could not have gone in
    }
    else if (held)
    {
        --_state;
    }
    EndStep();
    if (!held)
    {
        ThrowNotHeld();
    }
}

bool ReadWriteLock::IsWriting() const
{
    return (_state & Writing) != 0;
}

bool ReadWriteLock::WriterMayGo() const
{
    return (_state & (Writing | Readers)) == 0 && _admittedReaders == 0;
}

void ReadWriteLock::EndStep()
{
    if (_waitingReaders + _waitingWriters == 0)
    {
        _state &= ~Contended;
    }
    else if (_waitingWriters > 0 && WriterMayGo())
    {
        _writerMayGo.notify_one();
    }
    else if (_waitingReaders > 0 && !IsWriting() && (_waitingWriters == 0 || _admittedReaders > 0))
    {
        _readersMayGo.notify_all();
    }
}

void ReadWriteLock::ThrowNotHeld() const
{
    throw LockException("Read/write lock '" + _name + "' was released while nobody held it", LockException::NotHeld);
}

}  // namespace korlo::osa
