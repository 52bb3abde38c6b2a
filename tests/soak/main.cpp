// Fifty clients of all kinds and a server that is ended and killed among them, for as long as one likes. At the end
// nothing may be lost, left over or in disagreement.

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <unistd.h>

#include "Actors.h"
#include "Ledger.h"
#include "SoakServer.h"
#include "World.h"
#include "client/KorloSettingsTcpConnection.h"
#include "korlo/core/Logger.h"
#include "korlo/osa/ServiceDirectory.h"
#include "settings/KorloSettingsClient.h"
#include "support/FaultProxy.h"
#include "support/Files.h"
#include "support/Growth.h"
#include "support/ServerProcess.h"

namespace korlo::soak
{
namespace
{

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr const char* ServerHost = settings::client::KorloSettingsTcpConnection::ServerHost;

struct Figures
{
    std::size_t threads;
    std::size_t descriptors;
    std::size_t residentKiB;
};

Figures FiguresOf(const ProcessFigures& process)
{
    return {process.CountThreads(), process.CountDescriptors(), process.GetResidentKiB()};
}

std::string TextOf(const Figures& figures)
{
    return std::to_string(figures.threads) + " threads, " + std::to_string(figures.descriptors) + " descriptors, " +
           std::to_string(figures.residentKiB) + " KiB";
}

std::string UserLayer(unsigned short port)
{
    RawClient client(port);
    client.Send("dump\n");
    return client.ReadBlock();
}

/// One run.
///
/// Thread safety: none of its own; it belongs to the main thread.
class Soak
{
public:
    Soak(unsigned int seed, std::chrono::seconds duration) : _duration(duration), _world(seed), _random(seed)
    {
        std::filesystem::create_directory(_world.PathOf("data"));
        std::ostringstream text;
        SettingsToBeginWith().SaveToStream(text);
        WriteFile(_world.PathOf("data/user.ini"), text.str());
        _world.SetProxyPort(_proxy.GetPort());
    }

    /// True when all is well.
    bool Run()
    {
        Begin();
        std::vector<std::unique_ptr<Actor>> actors = MakeActors(_world, _ledger);
        for (const auto& pActor : actors)
        {
            pActor->Start();
        }
        _began = Clock::now();
        Drive(actors, _began + _duration * 2 / 3, true);
        _pServer->Restart(SIGTERM);  // the one that lives to the end and has to show for it
        UseProxy(true);              // which knows its port
        Drive(actors, _began + _duration, false);
        _world.Stop();
        CalmNetwork();
        for (const auto& pActor : actors)
        {
            pActor->Join();
        }
        Settle(actors);
        actors.clear();
        CheckNothingIsLeft();
        CheckFiles();
        return Report();
    }

private:
    /// The figures of both processes before there is any client. One client comes and goes first, so that what is made
    /// once is there.
    void Begin()
    {
        _pServer = std::make_unique<SoakServer>(_world, _proxy);
        UseProxy(true);
        {
            const settings::KorloSettingsClient client(settings::KorloSettingsClient::MultiThreaded);
            core::IniFile settings;
            client.GetSettings("*", settings);
        }
        UserLayer(_world.GetServerPort());
        _proxy.AwaitLinks(0);
        _ownBefore = FiguresOf(_self);
        Eventually([this] { return _pServer->GetFigures().CountThreads() == IdleServerThreads; });
        _serverBefore = FiguresOf(_pServer->GetFigures());
        std::printf("server idle: %s; this process: %s\n", TextOf(_serverBefore).c_str(), TextOf(_ownBefore).c_str());
    }

    void UseProxy(bool usesProxy)
    {
        osa::ServiceDirectory::Register(ServerHost, "127.0.0.1",
                                        usesProxy ? _world.GetProxyPort() : _world.GetServerPort());
    }

    unsigned int Random(unsigned int bound) { return static_cast<unsigned int>(_random()) % bound; }

    /// Lets things go wrong until then.
    void Drive(const std::vector<std::unique_ptr<Actor>>& actors, Clock::time_point end, bool restartsServer)
    {
        Clock::time_point nextLine = Clock::now();
        while (Clock::now() < end && _world.GetFailures().empty())
        {
            if (Clock::now() >= nextLine)
            {
                PrintProgress(actors);
                nextLine += 5s;
            }
            const std::chrono::milliseconds pause(1000 + Random(3000));
            _world.Pause(std::min(pause, std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now())));
            restartsServer&& Random(2) == 0 ? RestartServer() : BreakNetwork();
        }
    }

    void RestartServer()
    {
        const bool isKilled = Random(2) == 0;
        ++(isKilled ? _kills : _terminations);
        _pServer->Restart(isKilled ? SIGKILL : SIGTERM, Random(3) == 0 ? "replace" : "append");
        UseProxy(Random(2) == 0);
    }

    void BreakNetwork()
    {
        const auto direction = Random(2) == 0 ? FaultProxy::ToServer : FaultProxy::ToClient;
        _proxy.Resume();
        switch (Random(4))
        {
        case 0:
            _proxy.ResetAll();
            break;
        case 1:
            _proxy.Arm(FaultProxy::Reset, direction, Random(2000));
            break;
        case 2:
            _proxy.Arm(FaultProxy::HalfClose, direction, Random(2000));
            break;
        default:
            _proxy.Arm(FaultProxy::Stall, direction, Random(2000));
            break;
        }
        ++_faults;
    }

    /// A client whose connection stays stalled waits for its answer for ever.
    void CalmNetwork()
    {
        _proxy.Arm(FaultProxy::Reset, FaultProxy::ToServer, static_cast<std::size_t>(-1));  // which is never
        _proxy.Resume();
    }

    void PrintProgress(const std::vector<std::unique_ptr<Actor>>& actors) const
    {
        unsigned long steps = 0;
        for (const auto& pActor : actors)
        {
            steps += pActor->CountSteps();
        }
        const auto elapsed = std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - _began);
        std::printf("%4d s: %lu steps, %d acknowledged changes; server ended %d times, killed %d times; %d network "
                    "faults; server %zu KiB, this process %zu KiB\n",
                    static_cast<int>(elapsed.count()), steps, _ledger.CountAcknowledgements(), _terminations, _kills,
                    _faults, _pServer->GetFigures().GetResidentKiB(), _self.GetResidentKiB());
        std::fflush(stdout);
    }

    /// Waits until every client holds what the store holds.
    void Settle(const std::vector<std::unique_ptr<Actor>>& actors)
    {
        const core::IniFile store = Announce(1);
        _ledger.CheckAll(store);
        _ledger.CheckShared(store.GetIntOrDefault("Soak/Shared", "value", 0) - 1);

        std::vector<Actor*> waiting;
        for (const auto& pActor : actors)
        {
            waiting.push_back(pActor.get());
        }
        int round = 1;
        for (const auto end = Clock::now() + 60s; !waiting.empty() && Clock::now() < end; ++round)
        {
            // A client that came back a moment ago may have missed a change: another one follows.
            const core::IniFile settings = Announce(round);
            std::this_thread::sleep_for(300ms);  // nobody tells when it has come to processes and their files
            std::erase_if(waiting, [&](Actor* pActor) { return HasSettled(*pActor, settings, round); });
        }
        for (const Actor* pActor : waiting)
        {
            _world.Fail(pActor->GetName() + " does not agree with the store");
        }
        std::printf("settled after %d rounds\n", round - 1);
    }

    static bool HasSettled(Actor& actor, const core::IniFile& settings, int round)
    {
        try
        {
            return actor.Settle(settings, round);
        }
        catch (const std::exception&)
        {
            return false;  // one call may still tell of a connection that was lost before
        }
    }

    /// Makes one more change that everybody hears of, and returns what the store holds then.
    core::IniFile Announce(int round) const
    {
        RawClient client(_world.GetServerPort());
        core::IniFile settings;
        if (!client.TestAndMerge("", "[Soak/Final]\nround=" + std::to_string(round) + '\n'))
        {
            return settings;
        }
        settings.LoadFromString(client.Get("Soak/*"));
        return settings;
    }

    void CheckNothingIsLeft()
    {
        const ProcessFigures server = _pServer->GetFigures();
        _proxy.ResetAll();
        Eventually([&] {
            return server.CountThreads() <= _serverBefore.threads &&
                   server.CountDescriptors() <= _serverBefore.descriptors;
        });
        Compare("the server", _serverBefore, FiguresOf(server));
        Compare("this process", _ownBefore, FiguresOf(_self));
    }

    void Compare(const std::string& who, const Figures& before, const Figures& after)
    {
        std::printf("%s has %s left\n", who.c_str(), TextOf(after).c_str());
        if (after.threads != before.threads || after.descriptors != before.descriptors)
        {
            _world.Fail(who + " had " + TextOf(before) + ", and has " + TextOf(after));
        }
        if (after.residentKiB > before.residentKiB + GrowthKiB(8 * 1024))
        {
            _world.Fail(who + " grew from " + TextOf(before) + " to " + TextOf(after));
        }
    }

    /// The server ends, and comes back with what it had; no file is left over.
    void CheckFiles()
    {
        const std::string before = UserLayer(_world.GetServerPort());
        _pServer->Restart(SIGTERM);
        if (before.empty() || UserLayer(_world.GetServerPort()) != before)
        {
            _world.Fail("the server came back with other settings than it had");
        }
        _pServer->End(SIGTERM);
        std::set<std::string> names = NamesIn(_world.PathOf("data"));
        names.erase("user.ini.log~");  // unless the last ones have replaced
        if (names != std::set<std::string>{"user.ini", "user.ini~"})
        {
            _world.Fail("there are files beside user.ini and user.ini~");
        }
        std::istringstream log(ContentOf(_pServer->GetLogPath()).value_or(std::string()));
        for (std::string line; std::getline(log, line);)
        {
            if (line.find(" Error ") != std::string::npos)
            {
                _world.Fail("the server logged: " + line);
            }
        }
    }

    bool Report() const
    {
        const std::vector<std::string> failures = _world.GetFailures();
        for (const std::string& failure : failures)
        {
            std::printf("FAILURE: %s\n", failure.c_str());
        }
        std::printf("soak %s: seed %u, %d s, %d acknowledged changes, server ended %d times and killed %d times, %d "
                    "network faults\n",
                    failures.empty() ? "PASSED" : "FAILED", _world.GetSeed(), static_cast<int>(_duration.count()),
                    _ledger.CountAcknowledgements(), _terminations, _kills, _faults);
        return failures.empty();
    }

    static constexpr std::size_t IdleServerThreads = 2;  // one waits for signals, one for clients

    const std::chrono::seconds _duration;
    World _world;
    Ledger _ledger{_world};
    FaultProxy _proxy{1};  // until there is a server
    std::unique_ptr<SoakServer> _pServer;
    std::mt19937 _random;
    Clock::time_point _began;
    const ProcessFigures _self{::getpid()};
    Figures _ownBefore{};
    Figures _serverBefore{};
    int _kills = 0;
    int _terminations = 0;
    int _faults = 0;
};

}  // namespace
}  // namespace korlo::soak

int main(int argc, char** argv)
{
    if (argc < 2 || argc > 3 || std::atoi(argv[1]) <= 0)
    {
        std::fprintf(stderr, "usage: %s SECONDS [SEED]\n", argv[0]);
        return 2;
    }
    const unsigned int seed =
        argc == 3 ? static_cast<unsigned int>(std::strtoul(argv[2], nullptr, 10)) : std::random_device()();
    korlo::core::Logger::SetLevel(0);  // what fails here is meant to, and clients tell of it by exceptions
    std::printf("soak: seed %u\n", seed);
    return korlo::soak::Soak(seed, std::chrono::seconds(std::atoi(argv[1]))).Run() ? 0 : 1;
}
