#include "client/KorloSettingsClientImplMultiThreaded.h"

#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <limits>
#include <stdexcept>

#include "client/FirstWord.h"
#include "client/RemoteCommands.h"
#include "common/Assertion.h"
#include "common/DelimitedIstream.h"
#include "common/GroupList.h"
#include "common/ReadDelimitedValues.h"
#include "korlo/osa/Exception.h"

namespace korlo::settings::client
{
namespace
{

constexpr unsigned int StackBytes = 32768;
constexpr signed char Priority = 0;
constexpr unsigned short QueueCapacity = 1;
constexpr int ConnectionAttempts = 3;
constexpr unsigned int DoNotWait = 0;

void WriteSubscribe(std::ostream& out, const GroupNameCollection& groups)
{
    out << "subscribe\n";
    common::WriteGroupList(out, groups);
    out.flush();
}

}  // namespace

/// Holds the send semaphore to the end of the scope.
///
/// Thread safety: none of its own; it lives and dies on one thread.
class KorloSettingsClientImplMultiThreaded::SemAutoLock
{
public:
    SemAutoLock(osa::Semaphore& semaphore, unsigned int timeoutMs) : _semaphore(semaphore)
    {
        _semaphore.Lock(timeoutMs);
    }

    SemAutoLock(const SemAutoLock&) = delete;
    SemAutoLock& operator=(const SemAutoLock&) = delete;

    ~SemAutoLock()
    {
        try
        {
            _semaphore.Release();
        }
        catch (...)
        {
            // Somebody else let it go: two threads may write at once from here on, and no request could be trusted.
            std::fputs("KorloSettingsClientImplMultiThreaded: SemAutoLock: failed to release semaphore!\n", stderr);
            std::abort();
        }
    }

private:
    osa::Semaphore& _semaphore;
};

KorloSettingsClientImplMultiThreaded::KorloSettingsClientImplMultiThreaded(KorloSettingsConnection* pConnection,
                                                                           const WaitLimits& limits)
    : _thread("KorloSettings", this, StackBytes, Priority),
      _pConnection(pConnection),
      _commandMutex(nullptr),
      _sendMutex("sendMutex", 1, 0),
      _timeoutMs(limits.connectionMs),
      _requestQueue("KorloSettingsClientImpl::_requestQueue", QueueCapacity),
      _responseQueue("KorloSettingsClientImpl::_responseQueue", QueueCapacity),
      _limits(limits),
      _stopSignal("stopReader", 1, 0),
      _readerEnded("readerEnded", 1, 0)
{
    _thread.Run();
}

KorloSettingsClientImplMultiThreaded::~KorloSettingsClientImplMultiThreaded()
{
    _stopRequested = true;
    _stopSignal.Release();
    _pConnection->RequestStop();
    try
    {
        const SemAutoLock lock(_sendMutex, _limits.quitMs);
        if (std::ostream* pOut = _pConnection->GetOstream())
        {
            *pOut << "quit\n" << std::flush;
        }
    }
    catch (...)
    {
        // The reader thread holds the semaphore while there is no connection: then nobody needs to be told.
    }
    if (!_readerEnded.TryLock(_limits.quitMs))
    {
        _pConnection->Interrupt();  // a server that does not answer to "quit"
    }
    _thread.Join();
}

void KorloSettingsClientImplMultiThreaded::GetSettings(const GroupNameCollection& groups, core::IniFile& settings) const
{
    core::IniFile received;  // of an answer that is cut short, nothing may reach the caller
    RunCommand("GetSettings", new GetSettingsCommand(&groups, &received));
    AddReceived(received, settings);
}

void KorloSettingsClientImplMultiThreaded::MergeSettings(const core::IniFile& changes, unsigned int flags)
{
    RunCommand("MergeSettings", new MergeCommand(&changes, flags));
}

bool KorloSettingsClientImplMultiThreaded::TestAndMerge(const core::IniFile& expected, const core::IniFile& changes)
{
    return RunCommand("TestAndMerge", new TestAndMergeCommand(&expected, &changes));
}

void KorloSettingsClientImplMultiThreaded::OverwriteSettings(const GroupNameCollection& groups,
                                                             const core::IniFile& settings)
{
    RunCommand("OverwriteSettings", new OverwriteCommand(&groups, &settings));
}

void KorloSettingsClientImplMultiThreaded::RestoreToDefaults(const GroupNameCollection& groups)
{
    RunCommand("RestoreToDefaults", new RestoreToDefaultsCommand(&groups));
}

void KorloSettingsClientImplMultiThreaded::Subscribe(IChangeCallback* pCallback, const GroupNameCollection& groups)
{
    _pLogger->Trace("Subscribe");
    if (pCallback == nullptr)
    {
        throw osa::Exception("%s was NULL", "callback");
    }
    common::CheckGroupList(groups);
    const unsigned int connection = SendSubscribe(groups);
    _dispatcher.AddCallback(pCallback, groups);
    if (_connectionCount == connection)
    {
        return;
    }
    // The connection was replaced meanwhile, and what the new one subscribed to may have been gathered before the
    // callback was there.
    try
    {
        SendSubscribe(groups);
    }
    catch (const osa::LockException&)
    {
        // No connection: the next one subscribes everything.
    }
}

/// Returns the number of the connection on which the groups were sent.
unsigned int KorloSettingsClientImplMultiThreaded::SendSubscribe(const GroupNameCollection& groups) const
{
    const SemAutoLock lock(_sendMutex, _timeoutMs);
    CheckInvariant("Subscribe");
    WriteSubscribe(*_pConnection->GetOstream(), groups);
    _outputFailed = _pConnection->GetOstream()->fail();
    return _connectionCount;
}

bool KorloSettingsClientImplMultiThreaded::RunCommand(const char* name, RemoteCommand* pCommand) const
{
    std::unique_ptr<RemoteCommand> pOwned(pCommand);
    _pLogger->Trace("%s", name);
    if (!pOwned->GetResponseKeyword().empty())
    {
        return SendAndAwait(name, std::move(pOwned));
    }
    const SemAutoLock lock(_sendMutex, _timeoutMs);
    CheckInvariant(name);
    Send(name, *pOwned);
    return true;
}

bool KorloSettingsClientImplMultiThreaded::SendAndAwait(const char* name, std::unique_ptr<RemoteCommand> pCommand) const
{
    const osa::MutexAutoLock oneAtATime(&_commandMutex);
    common::Assert(_requestQueue.Size() == 0, "_requestQueue.Size() == 0",
                   "source/client/KorloSettingsClientImplMultiThreaded");
    ResponseStatus status{false, false};
    {
        const SemAutoLock lock(_sendMutex, _timeoutMs);
        CheckInvariant(name);
        // A status that waits already is that of a connection which broke while nobody was waiting. It is taken before
        // anything is sent: else the response to this command would be taken for that to a later one.
        if (_responseQueue.TryGetMsg(status, DoNotWait))
        {
            FailToCommunicate(name);
        }
        Send(name, *pCommand);
        _requestQueue.SendMsg(pCommand.get());
        static_cast<void>(pCommand.release());  // the reader thread's from here on
    }
    _responseQueue.GetMsg(status, osa::Infinite);
    if (!status.matched)
    {
        FailToCommunicate(name);
    }
    return status.result;
}

void KorloSettingsClientImplMultiThreaded::Send(const char* name, RemoteCommand& command) const
{
    std::ostream& out = *_pConnection->GetOstream();
    command.SendRequest(out);
    if (out.fail())
    {
        _outputFailed = true;
        throw osa::Exception("%s lost connection to korlo-settings-server", name);
    }
}

void KorloSettingsClientImplMultiThreaded::CheckInvariant(const char* name) const
{
    if (_pConnection->GetIstream() == nullptr || _pConnection->GetOstream() == nullptr)
    {
        std::fprintf(stderr,
                     "KorloSettingsClientImplMultiThreaded::%s: invariant broken: take(_sendMutex) && "
                     "(!_pConnection->IsReady())\n",
                     name);
        std::abort();
    }
}

void KorloSettingsClientImplMultiThreaded::FailToCommunicate(const char* name) const
{
    _pLogger->Error("%s failed", name);
    throw osa::Exception("%s failed to communicate with korlo-settings-server", name);
}

void KorloSettingsClientImplMultiThreaded::Run()
{
    // The cycle. `_sendMutex` starts taken, belongs to this thread in every step but ReadUntilLost, and is left taken
    // for good at the end, when nobody may call any more.
    while (EstablishConnection())
    {
        Resubscribe();
        _pLogger->Information("Connected to korlo-settings-server, releasing semaphore");
        _sendMutex.Release();
        ReadUntilLost();
        LeaveConnection();
    }
    _readerEnded.Release();
}

void KorloSettingsClientImplMultiThreaded::Stop()
{
}

/// Returns true with both streams there, or false when the client is being destroyed: also when that began during the
/// attempt, since the destructor may have given up telling the server, which then would never end the connection.
bool KorloSettingsClientImplMultiThreaded::EstablishConnection()
{
    while (!_stopRequested)
    {
        _pLogger->Information("(re)Connecting to korlo-setting server");
        try
        {
            Connect();
        }
        catch (const std::exception& exception)
        {
            _pLogger->Warning("Connect() failed: %s", exception.what());
        }
        catch (...)
        {
            _pLogger->Warning("Connect() failed: %s", "unknown");
        }
        if (_pConnection->GetIstream() != nullptr && _pConnection->GetOstream() != nullptr)
        {
            return !_stopRequested;
        }
        _pLogger->Warning("Attempting to reconnect in 1 second");
        Pause();
    }
    return false;
}

void KorloSettingsClientImplMultiThreaded::Connect() const
{
    _pConnection->EnsureConnection(ConnectionAttempts);
}

void KorloSettingsClientImplMultiThreaded::Resubscribe()
{
    ++_connectionCount;  // before the groups are gathered: see Subscribe
    GroupNameCollection groups;
    _dispatcher.GetAllSubscribedGroups(groups);
    if (!groups.empty())
    {
        _pLogger->Information("Resubscribing %d groups", static_cast<int>(groups.size()));
        WriteSubscribe(*_pConnection->GetOstream(), groups);
    }
    _outputFailed = _pConnection->GetOstream()->fail();
}

void KorloSettingsClientImplMultiThreaded::ReadUntilLost()
{
    try
    {
        std::istream& in = *_pConnection->GetIstream();
        for (std::string line; !_outputFailed && std::getline(in, line) && in.good();)
        {
            ReadLine(line);
        }
    }
    catch (const std::exception& exception)
    {
        _pLogger->Error("Caught %s", exception.what());
    }
    catch (...)
    {
        _pLogger->Error("Caught %s", "an exception of an unknown kind");
    }
}

void KorloSettingsClientImplMultiThreaded::ReadLine(const std::string& line)
{
    if (line.empty())
    {
        throw std::runtime_error("Unexpected empty line returned from tcp connection with korlo-settings-server");
    }
    const std::string keyword(FirstWord(line));
    keyword == "async" ? HandleNotification() : HandleResponse(keyword);
}

void KorloSettingsClientImplMultiThreaded::HandleNotification()
{
    std::istream& in = *_pConnection->GetIstream();
    GroupNameCollection groups;
    common::readDelimitedValues(&in, std::inserter(groups, groups.end()));
    core::IniFile settings;
    stl::DelimitedIstream body(&in, ".");
    settings.LoadFromStream(body);
    if (in.good())  // else the connection was cut inside the message, and what came of it tells nothing
    {
        _dispatcher.OnChange(groups, settings);
    }
}

void KorloSettingsClientImplMultiThreaded::HandleResponse(const std::string& keyword)
{
    if (_abandonedResponses > 0)
    {
        SkipResponse(keyword);
        return;
    }
    RemoteCommand* pQueued = nullptr;
    bool found = false;
    {
        const SemAutoLock lock(_sendMutex, osa::Infinite);
        found = _requestQueue.TryGetMsg(pQueued, _limits.commandMs);
    }
    if (!found)
    {
        _pLogger->Error("Message received without corresponding request");
        return;
    }
    std::unique_ptr<RemoteCommand> pCommand(pQueued);
    std::istream& in = *_pConnection->GetIstream();
    ResponseStatus status{false, false};
    if (!pCommand->GetResponseKeyword().empty() && pCommand->GetResponseKeyword() == keyword)
    {
        status.matched = true;
        try
        {
            status.result = pCommand->HandleResponse(in);
        }
        catch (const std::exception& exception)
        {
            _pLogger->Error("Exception handling response from server: %s", exception.what());
        }
    }
    pCommand.reset();
    if (status.matched && !in.good())
    {
        return;  // lost inside the response: its caller is told so when the connection is left
    }
    _responseQueue.SendMsg(status);
}

/// The caller that awaited this response was told of a failure, and the next caller must not take it for its own.
void KorloSettingsClientImplMultiThreaded::SkipResponse(const std::string& keyword)
{
    --_abandonedResponses;
    std::istream& in = *_pConnection->GetIstream();
    if (keyword == "data")
    {
        stl::DelimitedIstream body(&in, ".");
        body.ignore(std::numeric_limits<std::streamsize>::max());
    }
    else
    {
        in.ignore(std::numeric_limits<std::streamsize>::max(), '\n');
    }
}

/// Whatever fails here is logged: the cycle goes on, and the thread with it.
void KorloSettingsClientImplMultiThreaded::LeaveConnection()
{
    _sendMutex.Lock(osa::Infinite);  // until there is a connection again
    try
    {
        Pause();
        CleanRequestQueue();
        _responseQueue.SendMsg(ResponseStatus{false, false});
    }
    catch (const std::exception& exception)
    {
        _pLogger->Error("Caught %s", exception.what());
    }
    _pConnection->CloseConnection();
    _pConnection->ForgetStreams();
}

void KorloSettingsClientImplMultiThreaded::CleanRequestQueue()
{
    while (_requestQueue.Size() != 0)
    {
        _pLogger->Information("cleaning request queue");
        RemoteCommand* pQueued = nullptr;
        _requestQueue.GetMsg(pQueued, osa::Infinite);
        const std::unique_ptr<RemoteCommand> pCommand(pQueued);
        _abandonedResponses += _pConnection->KeepsTransport() ? 1 : 0;
    }
}

/// One second, or until the client is being destroyed.
void KorloSettingsClientImplMultiThreaded::Pause()
{
    if (!_stopRequested)
    {
        _stopSignal.TryLock(_limits.pauseMs);
    }
}

}  // namespace korlo::settings::client
