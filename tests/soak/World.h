#pragma once
// What everybody in a soak run knows.

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

#include "support/TemporaryFolder.h"

namespace korlo::soak
{

/// Where the server is, whether it is time to end, and what went wrong.
///
/// Thread safety: all methods, from any thread.
class World
{
public:
    explicit World(unsigned int seed) : _seed(seed) {}

    unsigned int GetSeed() const { return _seed; }
    std::string PathOf(const std::string& name) const { return _folder.PathOf(name); }
    const std::string& GetFolder() const { return _folder.GetPath(); }

    /// The port of the network before the server, which stays the same, and of the server of the moment.
    void SetProxyPort(unsigned short port) { _proxyPort = port; }
    void SetServerPort(unsigned short port) { _serverPort = port; }
    unsigned short GetProxyPort() const { return _proxyPort; }
    unsigned short GetServerPort() const { return _serverPort; }

    void Stop()
    {
        const std::lock_guard lock(_mutex);
        _isStopped = true;
        _changed.notify_all();
    }

    bool IsStopped() const
    {
        const std::lock_guard lock(_mutex);
        return _isStopped;
    }

    /// Waits for that long, or until everything ends: then false.
    bool Pause(std::chrono::milliseconds duration)
    {
        std::unique_lock lock(_mutex);
        return !_changed.wait_for(lock, duration, [this] { return _isStopped; });
    }

    void Fail(const std::string& message)
    {
        const std::lock_guard lock(_mutex);
        _failures.push_back(message);
    }

    std::vector<std::string> GetFailures() const
    {
        const std::lock_guard lock(_mutex);
        return _failures;
    }

private:
    const unsigned int _seed;
    const TemporaryFolder _folder;
    std::atomic<unsigned short> _proxyPort = 0;
    std::atomic<unsigned short> _serverPort = 0;

    mutable std::mutex _mutex;
    std::condition_variable _changed;
    bool _isStopped = false;
    std::vector<std::string> _failures;
};

}  // namespace korlo::soak
