#include "settings/server/ClientHandler.h"

#include <algorithm>
#include <iterator>
#include <map>
#include <mutex>
#include <sstream>
#include <string>
#include <utility>

#include "common/Assertion.h"
#include "common/Protocol.h"
#include "common/ReadDelimitedValues.h"
#include "korlo/core/Stopwatch.h"
#include "settings/server/SerializationManager.h"
#include "settings/server/SettingsManager.h"

namespace korlo::settings::server
{
namespace
{

namespace word = common::word;

constexpr const char* Source = "source/common/ClientHandler";
constexpr std::size_t KeptBytes = 4096;  // of each buffer, that a connection may keep while it waits

/// The next word of a command line, empty when there is none.
std::string TakeWord(std::istream& line)
{
    std::string word;
    line >> word;
    return word;
}

void WriteNotification(std::ostream& out, const GroupNameCollection& groups, const core::IniFile& settings,
                       const ISettingsSerializer& serializer)
{
    common::GroupNameMatcher matcher;
    matcher.AddNamesAndPatterns(groups);
    out << word::AsyncChange << '\n';
    common::WriteGroupList(out, groups);
    serializer.OnSerialize(settings, matcher, out);
    out << word::EndOfBlock << '\n';
}

}  // namespace

/// The command table, one for the process.
///
/// Thread safety: after construction, all methods from any thread.
class ClientHandler::MsgDispatcher
{
public:
    /// Made when the first command of the process arrives, and never destroyed: handlers may run until the very end.
    static MsgDispatcher& Instance()
    {
        static std::once_flag created;
        std::call_once(created, [] { s_pInstance = new MsgDispatcher; });
        return *s_pInstance;
    }

    /// @param words a stream over the command line.
    void Dispatch(ClientHandler& handler, std::istream& words) const
    {
        const std::string command = TakeWord(words);
        if (command.empty() || command == word::EndOfBlock)
        {
            return;
        }
        const auto entry = _commands.find(command);
        if (entry == _commands.end())
        {
            _pLogger->Warning("Invalid command: %s", command.c_str());
            return;
        }
        const core::Stopwatch stopwatch(true);
        _pLogger->Trace("Handling command: %s", command.c_str());
        (handler.*entry->second)(words);
        _pLogger->Trace("Command %s took %f seconds", command.c_str(), static_cast<double>(stopwatch.Read()));
    }

private:
    using Command = void (ClientHandler::*)(std::istream&);

    MsgDispatcher()
        : _pLogger(core::Logger::GetLogger("MsgDispatcher")),
          _commands{
              {word::Quit, &ClientHandler::Quit},
              {word::Dump, &ClientHandler::Dump},
              {word::Merge, &ClientHandler::Merge},
              {word::TestAndMerge, &ClientHandler::TestAndMerge},
              {word::Subscribe, &ClientHandler::Subscribe},
              {word::Get, &ClientHandler::GetSections},
              {word::Overwrite, &ClientHandler::Overwrite},
              {word::Serialize, &ClientHandler::ChangeSerialization},
              {word::Restore, &ClientHandler::RestoreDefaults},
              {word::Info, &ClientHandler::Info},
          }
    {
    }

    static MsgDispatcher* s_pInstance;

    core::Logger* const _pLogger;  // not owned
    const std::map<std::string, Command> _commands;
};

ClientHandler::MsgDispatcher* ClientHandler::MsgDispatcher::s_pInstance = nullptr;

ClientHandler::ClientHandler(ServerEnv* pEnv, std::istream* pIn, std::ostream* pOut)
    : _pLogger(core::Logger::GetLogger("ClientHandler")),
      _quit(false),
      _pIn(pIn),
      _outputMutex(nullptr),
      _pOut(pOut),
      _pSettingsManager(pEnv->pSettingsManager),
      _pSerializationManager(pEnv->pSerializationManager),
      _pSerializer(_pSerializationManager->GetSerializer("ini"))
{
    common::Assert(_pSerializer != nullptr, "_pSerializer != __null", Source);
    _message.exceptions(std::ios::badbit);  // else a stream that is out of memory drops the rest without a word
}

ClientHandler::~ClientHandler()
{
    Unsubscribe();
}

void ClientHandler::Run()
{
    ServeRequests(nullptr);
}

void ClientHandler::Run(IRequestGate& gate)
{
    ServeRequests(&gate);
}

void ClientHandler::ServeRequests(IRequestGate* pGate)
{
    std::string line;
    std::istringstream words;  // one for all requests: making a stream costs more than reading a command line
    while (!_quit)
    {
        if (pGate != nullptr)
        {
            pGate->BeforeRequest();
        }
        if (!std::getline(*_pIn, line) || !RequestIsWhole())
        {
            break;
        }
        words.clear();
        words.str(line);
        MsgDispatcher::Instance().Dispatch(*this, words);
        if (line.size() > KeptBytes)
        {
            std::string().swap(line);
            std::istringstream().swap(words);
        }
    }
    Unsubscribe();
}

void ClientHandler::Unsubscribe()
{
    _pSettingsManager->Unsubscribe(this);
}

/// Hands the gathered response to the client's stream. The store, which wrote it, must not wait for that.
void ClientHandler::SendMessage()
{
    Send(_message.view());
    _message.view().size() > KeptBytes ? static_cast<void>(std::move(_message).str()) : _message.str(std::string());
}

/// One write for each response: a stream that hands on what it is given gets whole messages. One that takes no more
/// ends the connection.
void ClientHandler::Send(std::string_view text)
{
    _pOut->write(text.data(), static_cast<std::streamsize>(text.size())).flush();
    _quit = _quit || !_pOut->good();
}

/// Every line and every block ends with a line break, so a stream that met its own end was cut off inside the request.
bool ClientHandler::RequestIsWhole() const
{
    return _pIn->good();
}

const ISettingsSerializer& ClientHandler::Serializer(const char* assertion) const
{
    const ISettingsSerializer* pSerializer = _pSerializer;
    common::Assert(pSerializer != nullptr, assertion, Source);
    return *pSerializer;
}

void ClientHandler::Quit(std::istream&)
{
    _quit = true;
}

void ClientHandler::Dump(std::istream& options)
{
    const osa::MutexAutoLock lock(&_outputMutex);
    TakeWord(options) == word::All ? _pSettingsManager->DumpAllSettings(_message)
                                   : _pSettingsManager->DumpUserSettings(_message);
    _message << word::EndOfBlock << '\n';
    SendMessage();
}

void ClientHandler::Merge(std::istream& options)
{
    const ISettingsSerializer& serializer = Serializer("_pSerializer");
    const bool persist = TakeWord(options) != word::NoPersist;
    core::IniFile changes;
    serializer.OnDeserialize(*_pIn, changes);
    if (RequestIsWhole())
    {
        _pSettingsManager->MergeSettings(changes, persist ? 0 : SettingsManager::DoNotPersist);
    }
}

void ClientHandler::TestAndMerge(std::istream&)
{
    const ISettingsSerializer& serializer = Serializer("_pSerializer");
    core::IniFile expected;
    core::IniFile changes;
    serializer.OnDeserialize(*_pIn, expected);
    serializer.OnDeserialize(*_pIn, changes);
    if (!RequestIsWhole())
    {
        return;
    }
    // The mutex comes after the change, whose notification may have to be written by this very handler.
    const bool merged = _pSettingsManager->TestAndMerge(expected, changes);
    const osa::MutexAutoLock lock(&_outputMutex);
    _message << word::Result << '\n' << (merged ? word::Ok : word::Failure) << '\n';
    SendMessage();
}

void ClientHandler::Subscribe(std::istream&)
{
    GroupNameCollection groups;
    common::readDelimitedValues(_pIn, std::inserter(groups, groups.end()));
    if (RequestIsWhole() && !groups.empty())
    {
        for (const std::string& group : groups)
        {
            _subscribedBytes += _subscribed.insert(group).second ? group.size() + 1 : 0;
        }
        _pSettingsManager->Subscribe(this, groups);
    }
}

void ClientHandler::GetSections(std::istream& options)
{
    const ISettingsSerializer& serializer = Serializer("_pSerializer");
    const bool delimited = TakeWord(options) == word::Delimited;
    common::GroupNameMatcher matcher;
    common::readDelimitedValues(_pIn, common::GroupNameMatcherInsertIterator(&matcher));
    if (!RequestIsWhole())
    {
        return;
    }
    const osa::MutexAutoLock lock(&_outputMutex);
    if (delimited)
    {
        _message << word::Data << '\n';
    }
    if (!matcher.IsEmpty())
    {
        _pSettingsManager->WriteGroups(_message, matcher, serializer);
    }
    if (delimited)
    {
        _message << word::EndOfBlock << '\n';
    }
    SendMessage();
}

void ClientHandler::Overwrite(std::istream&)
{
    const ISettingsSerializer& serializer = Serializer("_pSerializer");
    GroupNameCollection groups;
    common::readDelimitedValues(_pIn, std::inserter(groups, groups.end()));
    core::IniFile replacement;
    serializer.OnDeserialize(*_pIn, replacement);
    if (RequestIsWhole())
    {
        _pSettingsManager->OverwriteSettings(groups, replacement);
    }
}

void ClientHandler::ChangeSerialization(std::istream& options)
{
    const std::string name = TakeWord(options);
    if (ISettingsSerializer* pSerializer = _pSerializationManager->GetSerializer(name))
    {
        _pLogger->Trace("switching to serialization mode: %s", name.c_str());
        _pSerializer = pSerializer;
    }
}

void ClientHandler::RestoreDefaults(std::istream&)
{
    common::GroupNameMatcher matcher;
    common::readDelimitedValues(_pIn, common::GroupNameMatcherInsertIterator(&matcher));
    if (RequestIsWhole())
    {
        _pSettingsManager->RestoreToDefaults(matcher);
    }
}

void ClientHandler::Info(std::istream& options)
{
    if (TakeWord(options) != word::Subscribed)
    {
        return;
    }
    // Before the output mutex: a dispatcher that is calling this handler holds its own mutex and waits for this one.
    GroupNameCollection groups;
    _pSettingsManager->GetAllSubscribedGroups(groups);

    const osa::MutexAutoLock lock(&_outputMutex);
    _message << word::SubscribedTitle << '\n' << word::SubscribedRule << '\n';
    for (const std::string& group : groups)
    {
        if (group.find('\n') == std::string::npos)  // a subscriber in the server's own process may have any name
        {
            _message << group << '\n';
        }
    }
    _message << '\n';
    SendMessage();
}

void ClientHandler::OnChange(const GroupNameCollection& groups, const core::IniFile&)
{
    if (std::all_of(groups.begin(), groups.end(), common::FitsGroupList))
    {
        Notify(groups);
        return;
    }
    GroupNameCollection listed;
    for (const std::string& group : groups)
    {
        if (common::FitsGroupList(group))
        {
            listed.insert(listed.end(), group);
        }
        else
        {
            _pLogger->Warning("A change of group '%s' is not announced: its name does not fit into a line",
                              group.c_str());
        }
    }
    if (!listed.empty())
    {
        Notify(listed);
    }
}

void ClientHandler::Notify(const GroupNameCollection& groups)
{
    // What the store holds now, read under the mutex: so the last notification that a client gets tells the last state.
    const osa::MutexAutoLock lock(&_outputMutex);
    const ISettingsSerializer& serializer = Serializer("_pSerializer != __null");
    const auto pText = _pSettingsManager->WriteNotification(groups, serializer, &WriteNotification);
    _pOut->write(pText->data(), static_cast<std::streamsize>(pText->size())).flush();
}

}  // namespace korlo::settings::server
