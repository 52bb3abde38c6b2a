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
#include "server/AccessGuard.h"
#include "settings/server/SerializationManager.h"
#include "settings/server/SettingsManager.h"

namespace korlo::settings::server
{
namespace
{

namespace word = common::word;

constexpr const char* Source = "source/common/ClientHandler";
constexpr std::size_t KeptBytes = 4096;  // of each buffer, that a connection may keep while it waits

/// A command line, read in place.
///
/// Thread safety: none of its own; lives on the stack of Run.
class LineBuffer : public std::streambuf
{
public:
    /// @param line borrowed.
    void Show(std::string& line) { setg(line.data(), line.data(), line.data() + line.size()); }
};

bool IsBlank(int character)
{
    return character == ' ' || (character >= '\t' && character <= '\r');
}

/// The next word of a command line, empty when there is none. Extraction by the stream asks its locale for each word.
std::string TakeWord(std::istream& line)
{
    constexpr int end = std::streambuf::traits_type::eof();
    std::streambuf& bytes = *line.rdbuf();
    int next = bytes.sgetc();
    while (IsBlank(next))
    {
        next = bytes.snextc();
    }
    std::string word;
    for (; next != end && !IsBlank(next); next = bytes.snextc())
    {
        word.push_back(static_cast<char>(next));
    }
    if (word.empty())
    {
        line.setstate(std::ios::failbit);
    }
    return word;
}

/// Past the stream's own operations, which look at its state and its locale each time.
void WriteLine(std::ostringstream& out, std::string_view text)
{
    out.rdbuf()->sputn(text.data(), static_cast<std::streamsize>(text.size()));
    out.rdbuf()->sputc('\n');
}

bool IsPattern(const std::string& entry)
{
    return entry.find('*') != std::string::npos;
}

core::IniFile AllSettingsOf(const SettingsManager& store)
{
    core::IniFile settings;
    store.GetGroups(settings, "*");
    return settings;
}

core::IniFile UserSettingsOf(const SettingsManager& store)
{
    std::ostringstream text;
    text.exceptions(std::ios::badbit);
    store.DumpUserSettings(text);
    core::IniFile settings;
    settings.LoadFromString(std::move(text).str());
    return settings;
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

/// For the log: whoever sends what is no command chooses how long it is.
std::string Shortened(const std::string& word)
{
    constexpr std::size_t mostBytes = 64;
    return word.size() <= mostBytes ? word
                                    : word.substr(0, mostBytes) + "... (" + std::to_string(word.size()) + " bytes)";
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
            _pLogger->Warning("Invalid command: %s", Shortened(command).c_str());
            return;
        }
        if (_pLogger->GetThreshold() < core::LogLevelTrace)
        {
            (handler.*entry->second)(words);  // nobody wants to know how long it takes
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
    : ClientHandler(pEnv, pIn, pOut, nullptr)
{
}

ClientHandler::ClientHandler(ServerEnv* pEnv, std::istream* pIn, std::ostream* pOut, IRequestGate* pGate,
                             IClientAccess* pAccess, const ChangeOrigin* pOrigin)
    : _pLogger(core::Logger::GetLogger("ClientHandler")),
      _quit(false),
      _pIn(pIn),
      _outputMutex(nullptr),
      _pOut(pOut),
      _pSettingsManager(pEnv->pSettingsManager),
      _pSerializationManager(pEnv->pSerializationManager),
      _pSerializer(_pSerializationManager->GetSerializer("ini")),
      _pGate(pGate),
      _pOrigin(pOrigin),
      _pGuard(std::make_unique<AccessGuard>(pAccess, _pSettingsManager->GetChangeObserver(), pOrigin))
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
    std::string line;
    LineBuffer bytes;
    std::istream words(&bytes);  // one for all requests: making a stream costs more than reading a command line
    while (!_quit && (_pGate == nullptr || _pGate->BeforeRequest()))
    {
        if (!std::getline(*_pIn, line) || !RequestIsWhole())
        {
            break;
        }
        words.clear();
        bytes.Show(line);
        MsgDispatcher::Instance().Dispatch(*this, words);
        if (line.size() > KeptBytes)
        {
            std::string().swap(line);
        }
    }
    Unsubscribe();
}

void ClientHandler::Unsubscribe()
{
    _pSettingsManager->Unsubscribe(this);
}

void ClientHandler::BeforeStore(RequestKind kind)
{
    if (_pGate != nullptr)
    {
        _pGate->BeforeStore(kind);
    }
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
    BeforeStore(RequestKind::Read);
    const bool all = TakeWord(options) == word::All;
    const AccessGuard::Rights pRights = _pGuard->GetRights();
    const osa::MutexAutoLock lock(&_outputMutex);
    if (pRights->MayReadEverything())
    {
        all ? _pSettingsManager->DumpAllSettings(_message) : _pSettingsManager->DumpUserSettings(_message);
    }
    else
    {
        core::IniFile visible = all ? AllSettingsOf(*_pSettingsManager) : UserSettingsOf(*_pSettingsManager);
        AccessGuard::HideUnreadable(*pRights, visible);
        visible.SaveToStream(_message);
    }
    _message << word::EndOfBlock << '\n';
    SendMessage();
}

void ClientHandler::Merge(std::istream& options)
{
    const ISettingsSerializer& serializer = Serializer("_pSerializer");
    const bool persist = TakeWord(options) != word::NoPersist;
    core::IniFile changes;
    serializer.OnDeserialize(*_pIn, changes);
    if (RequestIsWhole() &&
        _pGuard->AllowsMerge(persist ? operation::Merge : operation::MergeWithoutPersisting, changes))
    {
        BeforeStore(persist ? RequestKind::PersistentChange : RequestKind::Change);
        _pSettingsManager->MergeSettings(changes, persist ? 0 : SettingsManager::DoNotPersist, _pOrigin);
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
    bool merged = false;
    if (_pGuard->AllowsTestAndMerge(expected, changes))
    {
        BeforeStore(RequestKind::PersistentChange);
        // The mutex comes after the change, whose notification may have to be written by this very handler.
        merged = _pSettingsManager->TestAndMerge(expected, changes, _pOrigin);
    }
    const osa::MutexAutoLock lock(&_outputMutex);
    WriteLine(_message, word::Result);
    WriteLine(_message, merged ? word::Ok : word::Failure);
    SendMessage();
}

void ClientHandler::Subscribe(std::istream&)
{
    GroupNameCollection groups;
    common::readDelimitedValues(_pIn, std::inserter(groups, groups.end()));
    if (RequestIsWhole() && !groups.empty())
    {
        BeforeStore(RequestKind::Subscription);
        _pSettingsManager->Subscribe(this, groups);
        if (_pGate != nullptr)
        {
            _pGate->OnSubscribed(groups, _pSettingsManager->CountSubscriptions(this));
        }
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
    BeforeStore(RequestKind::Read);
    const AccessGuard::Rights pRights = _pGuard->GetRights();
    const osa::MutexAutoLock lock(&_outputMutex);
    if (delimited)
    {
        WriteLine(_message, word::Data);
    }
    if (matcher.IsEmpty())
    {
        // A get of nothing has no body in any form.
    }
    else if (_pGuard->ReadsAsAsked(*pRights, matcher))
    {
        _pSettingsManager->WriteGroups(_message, matcher, serializer);
    }
    else
    {
        core::IniFile visible;
        _pSettingsManager->GetGroups(visible, matcher);
        _pGuard->Answer(*pRights, matcher, visible);
        serializer.OnSerialize(visible, matcher, _message);
    }
    if (delimited)
    {
        WriteLine(_message, word::EndOfBlock);
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
    if (RequestIsWhole() && _pGuard->AllowsOverwrite(groups, replacement))
    {
        BeforeStore(RequestKind::PersistentChange);
        _pSettingsManager->OverwriteSettings(groups, replacement, _pOrigin);
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
    if (RequestIsWhole() && _pGuard->AllowsRestore(matcher))
    {
        BeforeStore(RequestKind::Restore);
        _pSettingsManager->RestoreToDefaults(matcher, _pOrigin);
    }
}

void ClientHandler::Info(std::istream& options)
{
    if (TakeWord(options) != word::Subscribed)
    {
        return;
    }
    BeforeStore(RequestKind::Read);
    // Before the output mutex: a dispatcher that is calling this handler holds its own mutex and waits for this one.
    GroupNameCollection groups;
    _pSettingsManager->GetAllSubscribedGroups(groups);
    const AccessGuard::Rights pRights = _pGuard->GetRights();
    std::erase_if(groups, [&pRights](const std::string& entry) { return !pRights->MayReadAllOf(entry); });

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
    const AccessGuard::Rights pRights = _pGuard->GetRights();
    const auto isSent = [&pRights](const std::string& group) {
        return common::FitsGroupList(group) && AccessGuard::MayHearOf(*pRights, group);
    };
    if (std::all_of(groups.begin(), groups.end(), isSent))
    {
        Notify(groups, *pRights);
        return;
    }
    GroupNameCollection sent;
    for (const std::string& group : groups)
    {
        if (isSent(group))
        {
            sent.insert(sent.end(), group);
        }
        else if (!common::FitsGroupList(group))
        {
            _pLogger->Warning("A change of group '%s' is not announced: its name does not fit into a line",
                              group.c_str());
        }
    }
    if (!sent.empty())
    {
        Notify(sent, *pRights);
    }
}

/// @param groups the client may read them.
void ClientHandler::Notify(const GroupNameCollection& groups, const IAccessRights& rights)
{
    // What the store holds now, read under the mutex: so the last notification that a client gets tells the last state.
    const osa::MutexAutoLock lock(&_outputMutex);
    const ISettingsSerializer& serializer = Serializer("_pSerializer != __null");
    if (rights.MayReadEverything() || std::none_of(groups.begin(), groups.end(), IsPattern))
    {
        const auto pText = _pSettingsManager->WriteNotification(groups, serializer, &WriteNotification);
        _pOut->write(pText->data(), static_cast<std::streamsize>(pText->size())).flush();
        return;
    }
    // A name with an asterisk brings in the groups that it matches as a pattern, also those that nobody is to see.
    common::GroupNameMatcher matcher;
    matcher.AddNamesAndPatterns(groups);
    core::IniFile visible;
    _pSettingsManager->GetGroups(visible, matcher);
    AccessGuard::HideUnreadable(rights, visible);
    std::ostringstream text;
    text.exceptions(std::ios::badbit);
    WriteNotification(text, groups, visible, serializer);
    _pOut->write(text.view().data(), static_cast<std::streamsize>(text.view().size())).flush();
}

}  // namespace korlo::settings::server
