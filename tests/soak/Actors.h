#pragma once
// The clients of a soak run.

#include <atomic>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "Ledger.h"
#include "World.h"
#include "korlo/core/IniFile.h"

namespace korlo::soak
{

/// A client on a thread of its own. It does one thing after the other until everything ends; now and then it goes, and
/// comes back as a new one.
///
/// Thread safety: all methods belong to the owner; Settle and later ones after Join.
class Actor
{
public:
    Actor(World& world, Ledger& ledger, const std::string& name);
    Actor(const Actor&) = delete;
    Actor& operator=(const Actor&) = delete;

    /// The thread has been joined.
    virtual ~Actor() = default;

    void Start();
    void Join();

    /// The chaos is over and the server stays: true when this client holds the same settings as the store.
    /// @param settings what the store has, among it the number `round` as [Soak/Final]round.
    virtual bool Settle(const core::IniFile& settings, int round) = 0;

    const std::string& GetName() const { return _name; }
    unsigned long CountSteps() const { return _steps; }

protected:
    /// What this client does; an exception means that the server could not be reached or asked.
    virtual void Step() = 0;

    /// Ends the client and makes a new one.
    virtual void Renew() = 0;

    /// A random number below `bound`.
    unsigned int Random(unsigned int bound) { return static_cast<unsigned int>(_random()) % bound; }

    /// A way to the server: the network that breaks, or past it.
    unsigned short AnyPort() { return Random(2) == 0 ? _world.GetProxyPort() : _world.GetServerPort(); }

    World& _world;
    Ledger& _ledger;

private:
    void Run();

    const std::string _name;
    std::mt19937 _random;
    std::atomic<unsigned long> _steps = 0;
    std::thread _thread;
};

/// Fifty clients of all kinds.
std::vector<std::unique_ptr<Actor>> MakeActors(World& world, Ledger& ledger);

/// The user layer that they begin with.
core::IniFile SettingsToBeginWith();

/// What reservers must never get beyond.
void CheckReservations(World& world, const core::IniFile& settings);

}  // namespace korlo::soak
