#include "client/KorloSettingsClientImplMultiThreaded.h"

#include <cstdio>
#include <cstdlib>
#include <utility>

#include "client/RemoteCommands.h"
#include "client/SemAutoLock.h"
#include "common/Assertion.h"
#include "common/Protocol.h"
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

/// Runs one step of the reader thread's cycle, which goes on whatever the step throws; false if it threw.
/// @param log is called with the reason; where there is no memory for the message either, the logger leaves it unsaid.
template <typename Step, typename Log>
bool Survive(const Step& step, const Log& log)
{
    try
    {
        step();
        return true;
    }
    catch (const std::exception& exception)
    {
        log(exception.what());
    }
    catch (...)
    {
        log("unknown");
    }
    return false;
}

}  // namespace

KorloSettingsClientImplMultiThreaded::KorloSettingsClientImplMultiThreaded(KorloSettingsConnection* pConnection,
                                                                           const WaitLimits& limits)
    : KorloSettingsClientImplMultiThreaded(std::unique_ptr<KorloSettingsConnection>(pConnection), limits)
{
}

KorloSettingsClientImplMultiThreaded::KorloSettingsClientImplMultiThreaded(
    std::unique_ptr<KorloSettingsConnection> pConnection, const WaitLimits& limits)
    : KorloSettingsClientImpl(pConnection->KeepsTransport()),  // within the process, it is always connected
      _thread("KorloSettings", this, StackBytes, Priority),
      _pConnection(std::move(pConnection)),
      _commandMutex(nullptr),
      _sendMutex("sendMutex", 1, 0),
      _timeoutMs(limits.connectionMs),
      _requestQueue("KorloSettingsClientImpl::_requestQueue", QueueCapacity),
      _responseQueue("KorloSettingsClientImpl::_responseQueue", QueueCapacity),
      _limits(limits)
{
    _pConnection->HeedStopRequest(&_stopRequested);
    _thread.Run();
}

KorloSettingsClientImplMultiThreaded::~KorloSettingsClientImplMultiThreaded()
{
    _stopRequested.Make();
    try
    {
        const SemAutoLock lock(_sendMutex, _limits.quitMs);
        if (std::ostream* pOut = _pConnection->GetOstream())
        {
            common::RequestWriter(*pOut).Quit();
        }
    }
    catch (...)
    {
        // The reader thread holds the semaphore while there is no connection: then nobody needs to be told.
    }
    if (!_stopRequested.AwaitEnd(_limits.quitMs))
    {
        _stopRequested.Break();  // a server that does not answer to "quit"
    }
    _thread.Join();
}

void KorloSettingsClientImplMultiThreaded::GetSettings(const GroupNameCollection& groups, core::IniFile& settings) const
{
    core::IniFile received;  // of an answer that is cut short, nothing may reach the caller
    RunCommand("GetSettings", new NotedGet(&groups, &received, _missed));
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
    _missed.Subscribe(pCallback, groups);
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

void KorloSettingsClientImplMultiThreaded::UnSubscribe(IChangeCallback* pCallback)
{
    _missed.Unsubscribe(pCallback);
}

void KorloSettingsClientImplMultiThreaded::ReportMissedChanges(bool isWanted)
{
    _missed.Report(isWanted && !_pConnection->KeepsTransport());  // within the process, nothing is ever missed
}

/// Returns the number of the connection on which the groups were sent.
unsigned int KorloSettingsClientImplMultiThreaded::SendSubscribe(const GroupNameCollection& groups) const
{
    const SemAutoLock lock(_sendMutex, _timeoutMs);
    CheckInvariant("Subscribe");
    WriteOrDrop([&](std::ostream& out) { common::RequestWriter(out).Subscribe(groups); });
    return _connectionCount;  // a lost one is replaced by one that subscribes everything
}

bool KorloSettingsClientImplMultiThreaded::RunCommand(const char* name, RemoteCommand* pCommand) const
{
    std::unique_ptr<RemoteCommand> pOwned(pCommand);
    _pLogger->Trace("%s", name);
    if (!pOwned->GetResponseKeyword().empty())
    {
        return SendAndAwait(name, *pOwned);
    }
    const SemAutoLock lock(_sendMutex, _timeoutMs);
    CheckInvariant(name);
    Send(name, *pOwned);
    return true;
}

bool KorloSettingsClientImplMultiThreaded::SendAndAwait(const char* name, RemoteCommand& command) const
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
        SendQueued(name, command);
    }
    _responseQueue.GetMsg(status, osa::Infinite);
    if (!status.matched)
    {
        FailToCommunicate(name);
    }
    return status.result;
}

/// Queues the command before it is written, since the response may be there before this thread is back from the write.
void KorloSettingsClientImplMultiThreaded::SendQueued(const char* name, RemoteCommand& command) const
{
    _requestQueue.SendMsg(&command);
    try
    {
        Send(name, command);
    }
    catch (...)
    {
        RemoteCommand* pUnsent = nullptr;
        if (_requestQueue.TryGetMsg(pUnsent, DoNotWait))
        {
            throw;
        }
        // The reader thread has it, with a response, and will say what became of it.
    }
}

void KorloSettingsClientImplMultiThreaded::Send(const char* name, RemoteCommand& command) const
{
    if (!WriteOrDrop([&](std::ostream& out) { command.SendRequest(out); }))
    {
        throw osa::Exception("%s lost connection to korlo-settings-server", name);
    }
}

/// Drops the connection unless the request was written as a whole; false if it was lost. With the send semaphore held.
template <typename Write>
bool KorloSettingsClientImplMultiThreaded::WriteOrDrop(const Write& write) const
{
    std::ostream& out = *_pConnection->GetOstream();
    const auto drop = [&] {
        out.setstate(std::ios_base::badbit);  // nobody writes behind it, until there is another connection
        _outputFailed = true;
        _stopRequested.Break();
    };
    try
    {
        write(out);
    }
    catch (...)
    {
        drop();
        throw;
    }
    if (out.fail())
    {
        drop();
    }
    return !out.fail();
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

// The cycle of the reader thread. `_sendMutex` starts taken, belongs to this thread in every state but Reading, and is
// left taken for good at the end, when nobody may call any more. Nothing that a step throws ends the thread.
//
// state         | entered from                  | what happens                                       | next
// --------------|-------------------------------|----------------------------------------------------|-------------
// Connecting    | start, Disconnected           | up to three attempts to connect; without success a | Resubscribing
//               |                               | pause of a second, and again                       |
// Resubscribing | Connecting                    | one request subscribes everything that callbacks   | Catching up
//               |                               | asked for                                          |
// Catching up   | Resubscribing                 | if missed changes are to be reported and there are | Reading
//               |                               | subscriptions, one request reads the same groups;  |
//               |                               | notifications that come before its answer are kept |
// Reading       | Catching up                   | `_sendMutex` is released, "connected" reported;    | Disconnected
//               |                               | what differs in the answer is delivered, then the  |
//               |                               | notifications that were kept; then each line is a  |
//               |                               | notification, which is delivered, or a response,   |
//               |                               | which is handed to its caller                      |
// Disconnected  | Reading when a read fails, a  | "not connected" is reported and `_sendMutex` taken | Connecting
//               | request was lost, or a line   | (only from Reading); a pause of a second; the      |
//               | or a callback throws;         | command that awaits its response is dropped, and   |
//               | Resubscribing when it throws; | its caller, or the next one, told of the failure   |
//               | Catching up when it throws or |                                                    |
//               | the connection is lost        |                                                    |
// the end       | Connecting, once the          |                                                    |
//               | destructor has asked for it   |                                                    |
void KorloSettingsClientImplMultiThreaded::Run()
{
    while (EstablishConnection())
    {
        CatchUp catchUp(_missed);
        bool isReady = false;
        if (Survive([&] { isReady = Resubscribe(catchUp); }) && isReady)
        {
            _sendMutex.Release();
            Report(!_outputFailed);
            Survive([&] {
                catchUp.Deliver();
                ReadUntilLost();
            });
            Report(false);
            _sendMutex.Lock(osa::Infinite);
        }
        LeaveConnection();
    }
    _stopRequested.SayEnded();
}

void KorloSettingsClientImplMultiThreaded::Stop()
{
}

template <typename Step>
bool KorloSettingsClientImplMultiThreaded::Survive(const Step& step) const
{
    return client::Survive(step, [this](const char* reason) { _pLogger->Error("Caught %s", reason); });
}

/// Returns true with both streams there, or false when the client is being destroyed: also when that began during the
/// attempt, since the destructor may have given up telling the server, which then would never end the connection.
bool KorloSettingsClientImplMultiThreaded::EstablishConnection()
{
    while (!_stopRequested)
    {
        client::Survive(
            [this] {
                _pLogger->Information("(re)Connecting to korlo-setting server");
                _pConnection->EnsureConnection(ConnectionAttempts);
            },
            [this](const char* reason) { _pLogger->Warning("Connect() failed: %s", reason); });
        if (_pConnection->GetIstream() != nullptr && _pConnection->GetOstream() != nullptr)
        {
            return !_stopRequested;
        }
        Survive([this] { _pLogger->Warning("Attempting to reconnect in 1 second"); });
        _stopRequested.Pause(_limits.pauseMs);
    }
    return false;
}

/// Returns false when the connection was lost while missed changes were read. The first connection reads none: nobody
/// could subscribe before it.
bool KorloSettingsClientImplMultiThreaded::Resubscribe(CatchUp& catchUp)
{
    ++_connectionCount;  // before the groups are gathered: see Subscribe
    _outputFailed = false;
    GroupNameCollection groups;
    _dispatcher.GetAllSubscribedGroups(groups);
    bool isReady = true;
    if (!groups.empty())
    {
        _pLogger->Information("Resubscribing %d groups", static_cast<int>(groups.size()));
        WriteOrDrop([&](std::ostream& out) { common::RequestWriter(out).Subscribe(groups); });
        if (_missed.IsWanted())
        {
            isReady = WriteOrDrop([&](std::ostream& out) { common::RequestWriter(out).Get(groups); }) &&
                      catchUp.Read(*_pConnection->GetIstream(), groups);
        }
    }
    if (isReady)
    {
        _pLogger->Information("Connected to korlo-settings-server, releasing semaphore");
    }
    return isReady;
}

/// A connection within the process is never lost, as far as anybody is concerned; and an owner who destroys the client
/// wants to hear no more of it.
void KorloSettingsClientImplMultiThreaded::Report(bool isConnected)
{
    if (!_pConnection->KeepsTransport() && !_stopRequested)
    {
        Survive([this, isConnected] { ReportConnection(isConnected); });
    }
}

void KorloSettingsClientImplMultiThreaded::ReadUntilLost()
{
    std::istream& in = *_pConnection->GetIstream();
    for (std::string line; !_outputFailed && std::getline(in, line) && in.good();)
    {
        ReadLine(line);
    }
}

void KorloSettingsClientImplMultiThreaded::ReadLine(const std::string& line)
{
    const std::string_view keyword = KeywordOf(line);
    if (keyword != common::word::Async)
    {
        HandleResponse(keyword);
        return;
    }
    ChangeNotice change;
    if (ReadNotification(*_pConnection->GetIstream(), change))
    {
        _missed.Deliver(change);
    }
}

void KorloSettingsClientImplMultiThreaded::HandleResponse(std::string_view keyword)
{
    std::istream& in = *_pConnection->GetIstream();
    if (_abandonedResponses > 0)
    {
        // The caller that awaited it was told of a failure, and the next caller must not take it for its own.
        --_abandonedResponses;
        common::ResponseReader(in).Skip(keyword);
        return;
    }
    RemoteCommand* pCommand = nullptr;
    if (!TakeCommand(pCommand))
    {
        _pLogger->Error("Message received without corresponding request");
        return;
    }
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
    if (status.matched && !in.good())
    {
        return;  // lost inside the response: its caller is told so when the connection is left
    }
    _responseQueue.SendMsg(status);
}

/// Without the send semaphore where it can be: on one core, its holder has often not returned from writing the request.
bool KorloSettingsClientImplMultiThreaded::TakeCommand(RemoteCommand*& pCommand)
{
    if (_requestQueue.TryGetMsg(pCommand, DoNotWait))
    {
        return true;
    }
    const SemAutoLock lock(_sendMutex, osa::Infinite);
    return _requestQueue.TryGetMsg(pCommand, _limits.commandMs);
}

/// With the send semaphore held, until there is a connection again.
void KorloSettingsClientImplMultiThreaded::LeaveConnection()
{
    _stopRequested.Pause(_limits.pauseMs);
    Survive([this] { CleanRequestQueue(); });
    PostFailure();
    Survive([this] { _pConnection->CloseConnection(); });
    _pConnection->ForgetStreams();
}

void KorloSettingsClientImplMultiThreaded::CleanRequestQueue()
{
    while (_requestQueue.Size() != 0)
    {
        RemoteCommand* pCommand = nullptr;
        _requestQueue.GetMsg(pCommand, osa::Infinite);
        _abandonedResponses += _pConnection->KeepsTransport() ? 1 : 0;
        _pLogger->Information("cleaning request queue");
    }
}

/// Whoever awaits a response would wait for ever without it: so a status for which there is no memory is posted later.
/// A queue that is full holds one that nobody has met yet, which is as good.
void KorloSettingsClientImplMultiThreaded::PostFailure()
{
    while (!Survive([this] {
        _responseQueue.SendMsg(ResponseStatus{false, false});
    }) && _responseQueue.Size() == 0 &&
           !_stopRequested)
    {
        _stopRequested.Pause(_limits.pauseMs);
    }
}

}  // namespace korlo::settings::client
