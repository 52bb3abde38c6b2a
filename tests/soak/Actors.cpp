#include "Actors.h"

#include <algorithm>
#include <functional>
#include <sstream>

#include <sys/wait.h>

#include "korlo/osa/Exception.h"
#include "settings/KorloSettingsClient.h"
#include "settings/ResourceReserver.h"
#include "settings/SettingsWatcher.h"
#include "support/ChildProcess.h"
#include "support/Files.h"
#include "support/ServerProcess.h"

namespace korlo::soak
{
namespace
{

using core::IniFile;
using settings::KorloSettingsClient;

constexpr int Reservers = 4;
constexpr const char* Shared = "Soak/Shared";
constexpr const char* Resource = "Soak";

std::string ConsumerGroup(int number)
{
    return "Resources/Soak/Consumers/c" + std::to_string(number);
}

IniFile Read(const KorloSettingsClient& client, const std::string& group)
{
    IniFile settings;
    client.GetSettings(group, settings);
    return settings;
}

std::string TextOf(const IniFile& settings)
{
    std::ostringstream text;
    settings.SaveToStream(text);
    return text.str();
}

IniFile Parse(const std::string& text)
{
    IniFile settings;
    settings.LoadFromString(text);
    return settings;
}

/// Raises a counter of its own, whatever becomes of the server, and, where it can, the one of all.
class CountingActor : public Actor
{
public:
    CountingActor(World& world, Ledger& ledger, const std::string& name)
        : Actor(world, ledger, name),
          _group("Soak/" + name)
    {
    }

protected:
    enum Outcome
    {
        Merged,
        Refused,
        Unknown
    };

    virtual IniFile Get(const std::string& group) = 0;
    virtual Outcome TestAndMerge(const IniFile& expected, const IniFile& changes) = 0;

    /// True for a client that sends a request again when its answer was lost: a refusal may then be one by itself.
    virtual bool MayResend() const { return false; }

    void Step() override
    {
        Count();
        if (Random(4) == 0)
        {
            CountTogether();
        }
    }

private:
    void Count()
    {
        if (!_isKnown)
        {
            const int promised = _ledger.Promised(_group);
            _value = _ledger.Check(_group, Get(_group), promised);
        }
        _ledger.Ask(_group, _value + 1);
        _isKnown = false;
        if (TestAndMerge(_value == 0 ? IniFile() : Ledger::DocumentOf(_group, _value),
                         Ledger::DocumentOf(_group, _value + 1)) == Merged)
        {
            _ledger.Acknowledge(_group, ++_value);
            _isKnown = true;
        }
    }

    void CountTogether()
    {
        const int value = Get(Shared).GetIntOrDefault(Shared, "value", 0);
        Outcome outcome = Unknown;
        try
        {
            outcome = TestAndMerge(Ledger::DocumentOf(Shared, value), Ledger::DocumentOf(Shared, value + 1));
        }
        catch (...)
        {
            _ledger.CountShared(false);
            throw;
        }
        if (outcome != Refused || MayResend())
        {
            _ledger.CountShared(outcome == Merged);
        }
    }

    const std::string _group;
    int _value = 0;
    bool _isKnown = false;  // what the store holds
};

/// One of the library's clients.
class LibraryActor : public CountingActor
{
public:
    LibraryActor(World& world, Ledger& ledger, const std::string& name, KorloSettingsClient::OperationMode mode)
        : CountingActor(world, ledger, name),
          _mode(mode),
          _pClient(std::make_unique<KorloSettingsClient>(mode))
    {
    }

    bool Settle(const IniFile& settings, int) override { return Read(*_pClient, "Soak/*") == settings; }

protected:
    IniFile Get(const std::string& group) override { return Read(*_pClient, group); }

    Outcome TestAndMerge(const IniFile& expected, const IniFile& changes) override
    {
        return _pClient->TestAndMerge(expected, changes) ? Merged : Refused;
    }

    bool MayResend() const override { return _mode == KorloSettingsClient::SingleThreaded; }

    void Renew() override
    {
        _pClient.reset();
        _pClient = std::make_unique<KorloSettingsClient>(_mode);
    }

private:
    const KorloSettingsClient::OperationMode _mode;
    std::unique_ptr<KorloSettingsClient> _pClient;
};

/// Speaks the protocol by itself.
class RawActor : public CountingActor
{
public:
    using CountingActor::CountingActor;

    bool Settle(const IniFile& settings, int) override { return Get("Soak/*") == settings; }

protected:
    IniFile Get(const std::string& group) override
    {
        Send("get delimited\n" + group + "\n.\n");
        Expect("data");
        return Parse(ReadBlock());
    }

    Outcome TestAndMerge(const IniFile& expected, const IniFile& changes) override
    {
        if (Random(8) == 0)
        {
            Send("merge nopersist\n[Scratch/" + GetName() + "]\nk=" + std::string(Random(20'000), 'x') + "\n.\n");
        }
        Send("test-and-merge\n" + TextOf(expected) + ".\n" + TextOf(changes) + ".\n");
        Expect("result");
        const std::string result = ReadLine();
        return result == "ok" ? Merged : result == "failure" ? Refused : Unknown;
    }

    void Renew() override { _pClient.reset(); }

private:
    void Send(const std::string& text)
    {
        if (!_pClient)
        {
            _pClient = std::make_unique<RawClient>(AnyPort());
        }
        Demand(_pClient->Send(text));
    }

    std::string ReadLine()
    {
        const std::string line = _pClient->ReadLine();
        Demand(_pClient->GetStream().good());
        return line;
    }

    std::string ReadBlock()
    {
        const std::string block = _pClient->ReadBlock();
        Demand(_pClient->GetStream().good());
        return block;
    }

    void Expect(const std::string& expected)
    {
        if (const std::string line = ReadLine(); line != expected)
        {
            _world.Fail(GetName() + " expected '" + expected + "' and got '" + line + "'");
        }
    }

    void Demand(bool isConnected)
    {
        if (!isConnected)
        {
            _pClient.reset();
            throw osa::Exception("%s lost its connection", GetName().c_str());
        }
    }

    std::unique_ptr<RawClient> _pClient;
};

/// Runs the command line tool, and kills it now and then.
class ToolActor : public CountingActor
{
public:
    using CountingActor::CountingActor;

    bool Settle(const IniFile& settings, int) override { return Get("Soak/*") == settings; }

protected:
    IniFile Get(const std::string& group) override
    {
        ChildProcess child(Command({"get", group}));
        switch (child.Wait())
        {
        case 0:
            return Parse(child.GetOutput());
        case 1:
            return IniFile();
        default:
            throw osa::Exception("%s", child.GetErrors().c_str());
        }
    }

    Outcome TestAndMerge(const IniFile& expected, const IniFile& changes) override
    {
        const std::string expectedPath = _world.PathOf(GetName() + ".expected");
        const std::string changesPath = _world.PathOf(GetName() + ".changes");
        WriteFile(expectedPath, TextOf(expected));
        WriteFile(changesPath, TextOf(changes));
        ChildProcess child(Command({"test-and-merge", expectedPath, changesPath}));
        if (Random(5) == 0)
        {
            _world.Pause(std::chrono::milliseconds(Random(20)));
            child.Signal(SIGKILL);
        }
        const int status = child.Wait();
        return status == 0 ? Merged : status == 1 ? Refused : Unknown;
    }

    void Renew() override {}

private:
    std::vector<std::string> Command(const std::vector<std::string>& operands)
    {
        std::vector<std::string> command{KORLO_SETTINGS_TOOL, "--server", "127.0.0.1:" + std::to_string(AnyPort())};
        command.insert(command.end(), operands.begin(), operands.end());
        return command;
    }
};

/// Keeps variables equal to counters. What lasts is told only once it is on the disk, so no kill turns a counter back.
class WatchingActor : public Actor
{
public:
    WatchingActor(World& world, Ledger& ledger, const std::string& name, const std::string& watched)
        : Actor(world, ledger, name),
          _watched(watched)
    {
        WatchingActor::Renew();
    }

    bool Settle(const IniFile& settings, int round) override
    {
        _pWatcher->UpdateSettings();
        return _round == round && Read(*_pClient, "Soak/*") == settings;
    }

protected:
    void Step() override
    {
        if (!_pWatcher->UpdateSettings())
        {
            return;
        }
        if (_value < _latest)
        {
            _world.Fail(GetName() + " saw " + _watched + " go back from " + std::to_string(_latest) + " to " +
                        std::to_string(_value));
        }
        _latest = _value;
    }

    void Renew() override
    {
        _pWatcher.reset();
        _pClient.reset();
        _pClient = std::make_unique<KorloSettingsClient>(KorloSettingsClient::MultiThreaded);
        _pWatcher = std::make_unique<settings::SettingsWatcher>(_pClient.get());
        _pWatcher->AddSetting(_watched, "value", &_value);
        _pWatcher->AddSetting("Soak/Final", "round", &_round);
    }

private:
    const std::string _watched;
    std::unique_ptr<KorloSettingsClient> _pClient;
    std::unique_ptr<settings::SettingsWatcher> _pWatcher;  // uses the client
    int _value = 0;
    int _round = 0;
    int _latest = 0;
};

/// A process that watches for as long as it lives, behind the network that breaks.
class ToolWatchingActor : public Actor
{
public:
    ToolWatchingActor(World& world, Ledger& ledger, const std::string& name)
        : Actor(world, ledger, name),
          _outputPath(world.PathOf(name + ".out"))
    {
        ToolWatchingActor::Renew();
    }

    bool Settle(const IniFile&, int round) override
    {
        BeginAnew();
        const std::string output = ContentOf(_outputPath).value_or(std::string());
        return output.find("[Soak/Final]\nround=" + std::to_string(round) + '\n') != std::string::npos;
    }

protected:
    void Step() override
    {
        BeginAnew();
        _world.Pause(std::chrono::milliseconds(500));
    }

    void Renew() override
    {
        _pChild.reset();
        _pChild = std::make_unique<ChildProcess>(std::vector<std::string>{
            "sh", "-c", "exec \"$0\" --server \"127.0.0.1:$1\" watch 'Soak/F*' 'Soak/m1*' > \"$2\" 2> /dev/null",
            KORLO_SETTINGS_TOOL, std::to_string(_world.GetProxyPort()), _outputPath});
    }

private:
    /// The tool ends by itself when the server cannot be reached at its start.
    void BeginAnew()
    {
        siginfo_t ended{};
        const auto process = static_cast<id_t>(_pChild->GetProcess());
        if (::waitid(P_PID, process, &ended, WEXITED | WNOHANG | WNOWAIT) == 0 && ended.si_pid != 0)
        {
            Renew();
        }
    }

    const std::string _outputPath;
    std::unique_ptr<ChildProcess> _pChild;
};

/// Takes units of a resource that others take of, too.
class ReservingActor : public Actor
{
public:
    ReservingActor(World& world, Ledger& ledger, int number)
        : Actor(world, ledger, "reserver" + std::to_string(number)),
          _consumer("c" + std::to_string(number))
    {
        ReservingActor::Renew();
    }

    /// Gives back what it holds.
    bool Settle(const IniFile& settings, int) override
    {
        _pReserver->TrySetUsage(0);
        return _pReserver->GetCurrentUsage() == 0 && Read(*_pClient, "Soak/*") == settings;
    }

protected:
    void Step() override
    {
        _pReserver->TrySetUsage(static_cast<int>(Random(60)));
        CheckReservations(_world, Read(*_pClient, "Resources/*"));
    }

    void Renew() override
    {
        _pReserver.reset();
        _pClient.reset();
        _pClient = std::make_unique<KorloSettingsClient>(KorloSettingsClient::MultiThreaded);
        _pReserver = std::make_unique<settings::ResourceReserver>(_pClient.get(), Resource, _consumer);
    }

private:
    const std::string _consumer;
    std::unique_ptr<KorloSettingsClient> _pClient;
    std::unique_ptr<settings::ResourceReserver> _pReserver;  // uses the client
};

}  // namespace

Actor::Actor(World& world, Ledger& ledger, const std::string& name)
    : _world(world),
      _ledger(ledger),
      _name(name),
      _random(world.GetSeed() ^ static_cast<unsigned int>(std::hash<std::string>()(name)))
{
}

void Actor::Start()
{
    _thread = std::thread([this] { Run(); });
}

void Actor::Join()
{
    _thread.join();
}

void Actor::Run()
{
    constexpr unsigned int stepsOfALife = 300;
    while (!_world.IsStopped())
    {
        try
        {
            Random(stepsOfALife) == 0 ? Renew() : Step();
            ++_steps;
        }
        catch (const osa::Exception&)
        {
            _world.Pause(std::chrono::milliseconds(50));  // the server is away
        }
        catch (const std::exception& exception)
        {
            _world.Fail(_name + " met " + exception.what());
        }
        _world.Pause(std::chrono::milliseconds(Random(40)));
    }
}

std::vector<std::unique_ptr<Actor>> MakeActors(World& world, Ledger& ledger)
{
    std::vector<std::unique_ptr<Actor>> actors;
    const auto add = [&](int count, auto make) {
        for (int i = 0; i < count; ++i)
        {
            actors.push_back(make(i));
        }
    };
    add(12, [&](int i) {
        return std::make_unique<LibraryActor>(world, ledger, 'm' + std::to_string(10 + i),
                                              KorloSettingsClient::MultiThreaded);
    });
    add(8, [&](int i) {
        return std::make_unique<LibraryActor>(world, ledger, 's' + std::to_string(i),
                                              KorloSettingsClient::SingleThreaded);
    });
    add(10, [&](int i) { return std::make_unique<RawActor>(world, ledger, 'r' + std::to_string(i)); });
    add(5, [&](int i) { return std::make_unique<ToolActor>(world, ledger, 't' + std::to_string(i)); });
    add(6, [&](int i) {
        return std::make_unique<WatchingActor>(world, ledger, 'w' + std::to_string(i), "Soak/r" + std::to_string(i));
    });
    add(5, [&](int i) { return std::make_unique<ToolWatchingActor>(world, ledger, 'v' + std::to_string(i)); });
    add(Reservers, [&](int i) { return std::make_unique<ReservingActor>(world, ledger, i); });
    return actors;
}

IniFile SettingsToBeginWith()
{
    IniFile settings = Ledger::DocumentOf(Shared, 1);
    for (int i = 0; i < Reservers; ++i)
    {
        settings.SetValue(ConsumerGroup(i), "CurrentlyUsed", "0");
    }
    return settings;
}

void CheckReservations(World& world, const IniFile& settings)
{
    int used = 0;
    for (int i = 0; i < Reservers; ++i)
    {
        used += settings.GetIntOrDefault(ConsumerGroup(i), "CurrentlyUsed", 0);
    }
    if (used > 100)
    {
        world.Fail(std::to_string(used) + " of 100 units are reserved");
    }
}

}  // namespace korlo::soak
