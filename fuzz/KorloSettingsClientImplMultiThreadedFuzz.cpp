// Whatever a server says, and whenever it goes, the client neither breaks nor hangs: every caller returns, or throws
// what the operation documents, and nobody gets anything that the server has not said, and said to its end.
//
// The first line of an input is what one caller does, the second line what another one does at the same time, a letter
// for each operation; the rest is what the server says: see ScriptedPeer. A "k" among the operations makes a connection
// that keeps its transport.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "Input.h"
#include "Require.h"
#include "ScriptedConnection.h"
#include "client/KorloSettingsClientImplMultiThreaded.h"
#include "korlo/core/Logger.h"
#include "settings/IChangeCallback.h"
#include "support/Documents.h"

namespace korlo::fuzz
{
namespace
{

using core::IniFile;
using settings::GroupNameCollection;
using Client = settings::client::KorloSettingsClientImplMultiThreaded;

/// Everything that a server may be understood to say: its lines may be read from any of them on.
class Sayings
{
public:
    explicit Sayings(const std::string& script)
    {
        std::istringstream in(script);
        for (std::string line; std::getline(in, line) && !in.eof();)
        {
            if (line != "%await" && line != "%deaf")
            {
                _lines.push_back(line);
            }
        }
    }

    bool HoldsData(const IniFile& settings) const
    {
        return Any("data", [&](std::size_t next) {
            std::string body;
            return TakeBlock(next, body) && Ini(body) == settings;
        });
    }

    bool HoldsResult(bool isOk) const
    {
        return Any("result", [&](std::size_t next) {
            return next < _lines.size() && _lines[next] != "%lost" && (_lines[next] == "ok") == isOk;
        });
    }

    /// @param groups those of the notification that a subscriber asked for.
    bool HoldsChange(const GroupNameCollection& groups, const IniFile& settings) const
    {
        return Any("async", [&](std::size_t next) {
            const std::size_t first = next;
            std::string list;
            std::string body;
            if (!TakeBlock(next, list) || !TakeBlock(next, body))
            {
                return false;
            }
            const GroupNameCollection changed(_lines.begin() + static_cast<std::ptrdiff_t>(first), _lines.end());
            return std::includes(changed.begin(), changed.end(), groups.begin(), groups.end()) && Ini(body) == settings;
        });
    }

private:
    /// True when `test` is, for the place after any line that begins with the word.
    template <typename Test>
    bool Any(const std::string& keyword, const Test& test) const
    {
        for (std::size_t line = 0; line < _lines.size(); ++line)
        {
            std::string word;
            std::istringstream(_lines[line]) >> word;
            if (word == keyword && test(line + 1))
            {
                return true;
            }
        }
        return false;
    }

    /// False when the connection is lost inside the block.
    bool TakeBlock(std::size_t& next, std::string& text) const
    {
        for (; next < _lines.size() && _lines[next] != "%lost"; ++next)
        {
            if (_lines[next] == ".")
            {
                ++next;
                return true;
            }
            text += _lines[next] + "\n";
        }
        return false;
    }

    std::vector<std::string> _lines;
};

/// Subscribers that change settings, fail, or only look.
class Subscriber : public settings::IChangeCallback
{
public:
    enum class Kind
    {
        Looks,
        Changes,
        Fails
    };

    Subscriber(Kind kind, Client& client, const Sayings& sayings) : _kind(kind), _client(client), _sayings(sayings) {}

    void OnChange(const GroupNameCollection& groups, const IniFile& settings) override
    {
        Require(!groups.empty() && _sayings.HoldsChange(groups, settings), "a change was announced to its end");
        if (_kind == Kind::Changes)
        {
            _client.MergeSettings(settings, 0);
        }
        if (_kind == Kind::Fails)
        {
            throw std::runtime_error("a subscriber has failed");
        }
    }

private:
    const Kind _kind;
    Client& _client;
    const Sayings& _sayings;
};

/// A client with its subscribers, and callers of it.
class Scene
{
public:
    Scene(ScriptedPeer& peer, const Sayings& sayings, bool keepsTransport)
        : _sayings(sayings),
          _looking(Subscriber::Kind::Looks, _client, sayings),
          _changing(Subscriber::Kind::Changes, _client, sayings),
          _failing(Subscriber::Kind::Fails, _client, sayings),
          _client(new ScriptedConnection(peer, keepsTransport), {5, 0, 1, 1})
    {
    }

    void CallAll(const std::string& operations)
    {
        constexpr std::size_t most = 6;  // each may take a moment when there is no connection
        for (const char operation : operations.substr(0, most))
        {
            try
            {
                Call(operation);
            }
            catch (const osa::LockException&)
            {
                // There was no connection.
            }
            catch (const osa::Exception& exception)
            {
                Require(IsDocumented(exception.what()), "a call that fails says that the server is lost");
            }
        }
    }

private:
    void Call(char operation)
    {
        const IniFile changes = Ini("[A]\nk=1\n");
        switch (operation)
        {
        case 'g':
            return Get();
        case 't': {
            const bool isOk = _client.TestAndMerge(changes, changes);
            return Require(_sayings.HoldsResult(isOk), "the outcome of a test is what the server said");
        }
        case 'm':
            return _client.MergeSettings(changes, 1);
        case 'o':
            return _client.OverwriteSettings({"A", "B*"}, changes);
        case 'r':
            return _client.RestoreToDefaults({"*"});
        case 's':
            return _client.Subscribe(&_looking, {"A", "B*"});
        case 'c':
            return _client.Subscribe(&_changing, {"*"});
        case 'f':
            return _client.Subscribe(&_failing, {"F"});
        default:
            return;
        }
    }

    void Get()
    {
        IniFile settings;
        _client.GetSettings({"A", "*"}, settings);
        Require(_sayings.HoldsData(settings), "what is read is what the server said, to its end");
    }

    static bool IsDocumented(const std::string& message)
    {
        return message.ends_with(" lost connection to korlo-settings-server") ||
               message.ends_with(" failed to communicate with korlo-settings-server");
    }

    const Sayings& _sayings;
    Subscriber _looking;
    Subscriber _changing;
    Subscriber _failing;
    Client _client;  // goes first: it calls them until then
};

void Play(const std::string& one, const std::string& other, const std::string& script)
{
    const Sayings sayings(script);
    ScriptedPeer peer(script);
    auto pScene = std::make_unique<Scene>(peer, sayings, one.find('k') != std::string::npos);
    std::thread caller([&] { pScene->CallAll(other); });
    pScene->CallAll(one);
    caller.join();
    peer.ExpectNoMore();
    pScene.reset();
}

}  // namespace
}  // namespace korlo::fuzz

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    korlo::core::Logger::ClearAppenders();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    korlo::fuzz::Input input(data, size);
    const std::string one = input.TakeLine();
    const std::string other = input.TakeLine();
    korlo::fuzz::Play(one, other, input.TakeRest());
    return 0;
}
