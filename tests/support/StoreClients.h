#pragma once
// Two clients of one store, in any mode of operation.

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <ostream>
#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

#include "settings/KorloSettingsClient.h"
#include "support/Callbacks.h"
#include "support/Documents.h"
#include "support/SettingsServer.h"

namespace korlo::settings
{

/// A store and the ways to it: `client`, in the mode, and `other`, a client of its own where the mode has a server and
/// the same one where the store belongs to the client. In the modes that hear of changes, a test can wait for them.
///
/// Thread safety: Settle and Change by one thread at a time.
class StoreClients
{
public:
    using Mode = KorloSettingsClient::OperationMode;

    explicit StoreClients(Mode mode, const std::string& settings = "") : _barrier(*this)
    {
        if (mode == Mode::MultiThreaded || mode == Mode::SingleThreaded)
        {
            _server.emplace();
            _other.emplace(Mode::SingleThreaded);
        }
        _client.emplace(mode);
        if (HearsOfChanges(mode))
        {
            _client->Subscribe(&_barrier, "Barrier");
        }
        Change(settings);
    }

    StoreClients(const StoreClients&) = delete;
    StoreClients& operator=(const StoreClients&) = delete;

    static bool HearsOfChanges(Mode mode) { return mode != Mode::SingleThreaded && mode != Mode::LocalSingleThreaded; }

    KorloSettingsClient& Client() { return *_client; }
    KorloSettingsClient& Other() { return _other ? *_other : *_client; }

    /// Merges the document through the other client, and returns when the store has done it.
    void Change(const std::string& settings)
    {
        Other().MergeSettings(Ini(settings));
        Other().GetValue("[Barrier]count");
    }

    /// Erases the groups that are selected, likewise.
    void Erase(const std::string& nameOrPattern)
    {
        Other().EraseGroups(nameOrPattern);
        Other().GetValue("[Barrier]count");
    }

    /// All groups of that name or pattern, as text.
    std::string Read(const std::string& nameOrPattern)
    {
        core::IniFile settings;
        Other().GetSettings(nameOrPattern, settings);
        return TextOf(settings);
    }

    /// Returns when the store has seen the subscriptions that the client made before, and the client has delivered
    /// every change that came before.
    void Settle()
    {
        Other().GetValue("[Barrier]count");
        _client->SetValue("[Barrier]count", std::to_string(++_awaited));
        std::unique_lock lock(_mutex);
        if (!_delivered.wait_for(lock, std::chrono::seconds(30), [this] { return _count == _awaited; }))
        {
            throw std::runtime_error("A change was not delivered");
        }
    }

private:
    /// Changes are delivered one after the other, so this one comes after all earlier ones are through.
    class Barrier : public IChangeCallback
    {
    public:
        explicit Barrier(StoreClients& owner) : _owner(owner) {}

        void OnChange(const GroupNameCollection&, const core::IniFile& settings) override
        {
            const std::lock_guard lock(_owner._mutex);
            _owner._count = settings.GetIntOrDefault("Barrier", "count", 0);
            _owner._delivered.notify_all();
        }

    private:
        StoreClients& _owner;
    };

    int _awaited = 0;
    std::mutex _mutex;
    std::condition_variable _delivered;
    int _count = 0;
    Barrier _barrier;

    std::optional<SettingsServer> _server;
    std::optional<KorloSettingsClient> _other;
    std::optional<KorloSettingsClient> _client;
};

inline std::string NameOfMode(const testing::TestParamInfo<StoreClients::Mode>& info)
{
    constexpr const char* names[] = {"MultiThreaded", "SingleThreaded", "Local", "LocalSingleThreaded",
                                     "LocalMultiThreaded"};
    return names[info.param];
}

}  // namespace korlo::settings
