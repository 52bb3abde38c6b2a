#pragma once
// A file system whose disk takes its time.

#include <chrono>
#include <condition_variable>
#include <mutex>

#include "support/FaultyFileSystem.h"

namespace korlo
{

/// A disk whose sync tells of itself and waits until it is let go, or fails.
///
/// Thread safety: all methods, from any thread.
class SlowFileSystem : public FaultyFileSystem
{
public:
    int Sync(int file) override
    {
        std::unique_lock lock(_mutex);
        ++_syncs;
        _changed.notify_all();
        _changed.wait(lock, [this] { return !_isHeld; });
        return _error != 0 ? _error : FaultyFileSystem::Sync(file);
    }

    void Hold() { Set(_isHeld, true); }
    void LetGo() { Set(_isHeld, false); }
    void FailWith(int error) { Set(_error, error); }

    bool AwaitSyncs(int count)
    {
        std::unique_lock lock(_mutex);
        return _changed.wait_for(lock, std::chrono::seconds(30), [&] { return _syncs >= count; });
    }

private:
    template <typename T>
    void Set(T& member, T value)
    {
        const std::lock_guard lock(_mutex);
        member = value;
        _changed.notify_all();
    }

    std::mutex _mutex;
    std::condition_variable _changed;
    int _syncs = 0;
    bool _isHeld = false;
    int _error = 0;
};

}  // namespace korlo
