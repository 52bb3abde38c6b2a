#pragma once
// A lock that many may hold for reading, or one for writing.

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <string>

#include "korlo/osa/ThreadAnnotations.h"

namespace korlo::osa
{

/// Shared for reading, exclusive for writing. A hold belongs to no thread: who took it may let another thread release
/// it. Nobody starves: readers that come while a writer waits stand behind it, and the readers that waited for a writer
/// go in together before the next one. For that reason a thread that holds the lock must not take it a second time,
/// not even for reading: it would wait for the writer that waits for it.
///
/// Taking and releasing the lock costs one atomic operation each while nobody has to wait.
///
/// Thread safety: all methods, from any thread.
class KORLO_CAPABILITY("read/write lock") ReadWriteLock
{
public:
    /// @param name labels the lock in error texts; it is copied and may be null.
    explicit ReadWriteLock(const char* name = nullptr);
    ReadWriteLock(const ReadWriteLock&) = delete;
    ReadWriteLock& operator=(const ReadWriteLock&) = delete;

    /// Takes the lock for reading, or throws LockException (Timeout, with a text that names the lock) when `timeoutMs`
    /// is up.
    void ReadLock(unsigned int timeoutMs) KORLO_ACQUIRE_SHARED();

    /// Takes the lock for writing, or throws as ReadLock does.
    void WriteLock(unsigned int timeoutMs) KORLO_ACQUIRE();

    /// Ends one hold, of either kind. Throws LockException (NotHeld) when nobody holds the lock.
    void Release() KORLO_RELEASE_GENERIC();

private:
    bool TryReadAtOnce();
    bool TryWriteAtOnce();
    bool TryReleaseAtOnce();
    bool WaitToRead(unsigned int timeoutMs);
    bool WaitToWrite(unsigned int timeoutMs);
    void ReleaseToWaiters();
    bool IsWriting() const;
    bool WriterMayGo() const;
    void EndStep();
    [[noreturn]] void ThrowNotHeld() const;

    const std::string _name;

    std::atomic<unsigned int> _state = 0;  // the number of readers and two flags, see the source

    std::mutex _mutex;  // guards the rest; and `_state` too, while somebody waits
    std::condition_variable _readersMayGo;
    std::condition_variable _writerMayGo;
    unsigned int _waitingReaders = 0;
    unsigned int _waitingWriters = 0;
    unsigned int _writeRound = 0;       // goes up whenever a writer lets its waiting readers in
    unsigned int _admittedReaders = 0;  // how many of those have not gone in yet; no writer goes before them
};

}  // namespace korlo::osa
