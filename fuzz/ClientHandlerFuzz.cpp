// Whole connections over one store, with a slow model of the protocol and of the store beside them: every byte that a
// connection gets, both documents, and all that reaches storage are the same.
//
// An input is a script. At its beginning "%default", "%restricted" and "%user" are each followed by a document, which a
// full stop ends. From there on each line is sent on the connection that was opened last, but for these:
//
//   %open    opens another connection; the ones before it wait, wherever in a request they are
//   %close   ends the input of the connection that was opened last
//   %full    lets the next save fail
//   %reload  between connections: makes a new store over the same storage
//
// The first line that no connection is there for opens one.

#include <cstdint>
#include <istream>
#include <limits>
#include <memory>
#include <optional>
#include <sstream>
#include <streambuf>
#include <string>
#include <utility>
#include <vector>

#include "ClientHandlerModel.h"
#include "Input.h"
#include "Require.h"
#include "Script.h"
#include "korlo/core/Logger.h"
#include "korlo/osa/Exception.h"
#include "settings/server/ClientHandler.h"
#include "settings/server/SerializationManager.h"
#include "settings/server/SettingsManager.h"
#include "support/Documents.h"
#include "support/RecordingPersister.h"
#include "support/StoreModel.h"

namespace korlo::fuzz
{
namespace
{

using namespace settings::server;

/// The documents at the beginning of a script.
struct Documents
{
    explicit Documents(Script& script)
    {
        for (bool isOne = true; isOne;)
        {
            isOne = false;
            if (script.TakeIf("%default\n"))
            {
                defaults.push_back(script.TakeDocument());
                isOne = true;
            }
            if (script.TakeIf("%restricted\n"))
            {
                restricted.push_back(script.TakeDocument());
                isOne = true;
            }
            if (script.TakeIf("%user\n"))
            {
                user = script.TakeDocument();
                isOne = true;
            }
        }
    }

    std::vector<core::IniFile> defaults;
    std::vector<core::IniFile> restricted;
    core::IniFile user;
};

std::vector<Groups> ToMaps(const std::vector<core::IniFile>& documents)
{
    std::vector<Groups> maps;
    for (const core::IniFile& document : documents)
    {
        maps.push_back(ToMap(document));
    }
    return maps;
}

/// The connections of one script, over a store and over its model.
class Server
{
public:
    explicit Server(Script script)
        : _script(std::move(script)),
          _documents(_script),
          _model(StoreModel(ToMaps(_documents.defaults), ToMaps(_documents.restricted)))
    {
        _persister.defaults = _documents.defaults;
        _persister.user = _documents.user;
        _loader.documents = _documents.restricted;
        _persister.beforeLoadDefaults = [this] { _calls.push_back("load defaults"); };
        _persister.beforeLoadUser = [this] { _calls.push_back("load user settings"); };
        _persister.beforeSave = [this] { BeforeSave(); };
        _model.store.saved = ToMap(_documents.user);
        Load();
    }

    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    void Run()
    {
        while (!_script.IsAtEnd())
        {
            if (_script.TakeIf("%reload\n"))
            {
                Load();
            }
            else
            {
                RunConnection();
            }
            CompareStores();
        }
    }

private:
    /// One connection's input. Where it has to wait for more, other connections may have their turn.
    class InputBuffer : public std::streambuf
    {
    public:
        InputBuffer(Server& server, ConnectionModel& model) : _server(server), _model(model) {}

    protected:
        int_type underflow() override
        {
            if (!_hasEnded)
            {
                _hasEnded = !_server.NextLine(_line);
            }
            if (_hasEnded)
            {
                return traits_type::eof();
            }
            _model.Receive(_line);
            setg(_line.data(), _line.data(), _line.data() + _line.size());
            return traits_type::to_int_type(*gptr());
        }

    private:
        Server& _server;
        ConnectionModel& _model;
        std::string _line;
        bool _hasEnded = false;
    };

    static constexpr int MostOpen = 8;  // each of them takes its part of the stack

    void Load()
    {
        _pManager = std::make_unique<SettingsManager>(&_persister, &_loader, nullptr, false);
        _model.store.Load();
    }

    void BeforeSave()
    {
        _calls.push_back("save");
        if (std::exchange(_nextSaveFails, false))
        {
            throw osa::Exception("No space left on device");
        }
    }

    /// The next line for the connection that was opened last; false at the end of its input.
    bool NextLine(std::string& line)
    {
        while (!_script.IsAtEnd() && !_script.TakeIf("%close\n"))
        {
            if (_script.TakeIf("%full\n"))
            {
                _nextSaveFails = _model.nextSaveFails = true;
            }
            else if (_openCount < MostOpen && _script.TakeIf("%open\n"))
            {
                RunConnection();
            }
            else
            {
                line = _script.Take();
                return true;
            }
        }
        return false;
    }

    void RunConnection()
    {
        ++_openCount;
        ConnectionModel model(_model);
        InputBuffer buffer(*this, model);
        std::istream in(&buffer);
        std::ostringstream out;
        ServerEnv env{_pManager.get(), &_serialization};
        std::optional<ClientHandler> handler(std::in_place, &env, &in, &out);
        Require(HasEndedEarly(handler, in) == model.HasEnded(), "a connection ends when the client says so");
        in.clear();
        in.ignore(std::numeric_limits<std::streamsize>::max());  // what comes after that reaches nobody
        Require(out.str() == model.GetSent(), "a connection gets the bytes that the protocol says");
        --_openCount;
    }

    /// Serves the connection; a fault ends its handler. False when it was served to the end of its input.
    static bool HasEndedEarly(std::optional<ClientHandler>& handler, const std::istream& in)
    {
        try
        {
            handler->Run();
            return in.good();
        }
        catch (const osa::Exception&)
        {
            handler.reset();
            return !in.eof();
        }
    }

    void CompareStores() const
    {
        std::ostringstream all;
        std::ostringstream user;
        _pManager->DumpAllSettings(all);
        _pManager->DumpUserSettings(user);
        const StoreModel& store = _model.store;
        Require(all.str() == TextOf(ToIni(store.settings)), "the settings are what the requests made of them");
        Require(user.str() == TextOf(ToIni(store.user)), "so is the user layer");
        Require(ToMap(_persister.user) == store.saved, "so is what was saved");
        Require(CallsWithoutLoader() == _calls, "storage is called when it has to be, and only then");
    }

    std::vector<std::string> CallsWithoutLoader() const
    {
        std::vector<std::string> calls = _model.store.calls;
        std::erase(calls, "load restricted settings");
        return calls;
    }

    Script _script;
    const Documents _documents;
    ServerModel _model;

    std::vector<std::string> _calls;
    bool _nextSaveFails = false;
    RecordingPersister _persister;
    RecordingRestrictedLoader _loader;
    SerializationManager _serialization;
    std::unique_ptr<SettingsManager> _pManager;
    int _openCount = 0;
};

}  // namespace
}  // namespace korlo::fuzz

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    korlo::core::Logger::ClearAppenders();  // most of the inputs make no sense, and say so
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    korlo::fuzz::Server(korlo::fuzz::Script(korlo::fuzz::Input(data, size).TakeRest())).Run();
    return 0;
}
