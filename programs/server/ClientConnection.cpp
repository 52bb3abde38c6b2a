#include "ClientConnection.h"

#include <algorithm>
#include <chrono>
#include <exception>
#include <istream>
#include <memory>
#include <optional>
#include <ostream>
#include <streambuf>

#include "ClientInput.h"
#include "Peer.h"
#include "korlo/osa/Exception.h"
#include "settings/server/ClientHandler.h"
#include "settings/server/SettingsManager.h"

namespace korlo::daemon
{
namespace
{

using settings::server::ClientHandler;
using settings::server::IClientAccess;
using settings::server::IRequestGate;
using settings::server::RequestKind;
using settings::server::ServerEnv;
using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

constexpr unsigned int StackBytes = 64 * 1024;
constexpr std::size_t MuchInputBytes = 64 * 1024;  // unread, of which a single request may take its time
constexpr milliseconds LastWait{10'000};           // for a client that has sent its last request and does not read
constexpr milliseconds LastWaitOfServer{2'000};    // in all, when it is the server that ends

/// Hands the messages of a handler, each of which is one write, to the queue.
///
/// Thread safety: none of its own; who writes holds the handler's output mutex.
class ClientOutput : public std::streambuf
{
public:
    explicit ClientOutput(OutgoingQueue& queue) : _queue(queue) {}

protected:
    std::streamsize xsputn(const char* bytes, std::streamsize count) override
    {
        return _queue.Send(bytes, static_cast<std::size_t>(count)) ? count : 0;
    }

private:
    OutgoingQueue& _queue;
};

/// A handler whose notifications cost nobody but its own client a connection, should they fail.
///
/// Thread safety: as its base's.
class ConnectionHandler final : public ClientHandler
{
public:
    ConnectionHandler(ServerEnv& env, std::istream& in, std::ostream& out, IRequestGate& gate, IClientAccess& access,
                      const ClientOrigin& origin, OutgoingQueue& queue)
        : ClientHandler(&env, &in, &out, &gate, &access, &origin),
          _store(*env.pSettingsManager),
          _queue(queue)
    {
    }
    ConnectionHandler(const ConnectionHandler&) = delete;
    ConnectionHandler& operator=(const ConnectionHandler&) = delete;

    ~ConnectionHandler() override { _store.Unsubscribe(this); }  // before calls would reach the base alone

    void OnChange(const settings::GroupNameCollection& groups, const core::IniFile& settings) override
    {
        try
        {
            ClientHandler::OnChange(groups, settings);
        }
        catch (const std::exception& exception)
        {
            _queue.Break(std::string("a notification failed: ") + exception.what());
        }
    }

private:
    settings::server::SettingsManager& _store;
    OutgoingQueue& _queue;
};

}  // namespace

/// The streams and the handler of a connection, for as long as it is served. From one request to the next:
///
///     state    what happens                                                        next
///     -------  ------------------------------------------------------------------  ------------------------------
///     Between  what was gathered for long is sent; while much of its own output    Reading; Ending when the
///              waits, the client is held back                                      client or the server ends
///     Reading  the request is read; what was gathered is sent before each wait     Working; Ending as above,
///                                                                                  inside the request
///     Working  a quick change lets its notifications be gathered; before anything  Between; Ending when the
///              else, what was gathered is sent                                     request throws
///     Ending   what was gathered is sent, and what the client's socket has         -
///              refused as long as it takes some of it
///
/// Thread safety: made and used on the connection's own thread; the handler lets other threads write.
class ClientConnection::Session : private IRequestGate
{
public:
    explicit Session(ClientConnection& connection)
        : _connection(connection),
          _queue(*connection._pQueue),
          _round(connection._gathered),
          _input(*connection._pSocket, _queue, connection._limits.maxMessage,
                 [this] {
                     CountInput();
                     _round.Send();
                     return !_connection._isStopping;
                 }),
          _output(_queue),
          _in(&_input),
          _out(&_output),
          _handler(connection._env, _in, _out, *this, connection._access, connection._origin, _queue)
    {
        _in.exceptions(std::ios::badbit);  // else what goes wrong in reading looks like a client that has left
    }

    void Run()
    {
        _handler.Run();
        _round.Send();  // nobody waits for this client's last bytes
        if (!_in.good() && _input.GetRequestBytes() > 0 && !_connection._isStopping)
        {
            _queue.Break("it left in the middle of a request");
        }
        else if (!SendRest())
        {
            _queue.Break("it does not read its responses");
        }
    }

private:
    bool BeforeRequest() override
    {
        CountRequest();
        _round.BeforeRequest();
        if (_input.GetUnreadBytes() > MuchInputBytes)
        {
            _round.Send();
        }
        if (!_in.good())
        {
            return false;  // it ended inside the blocks of the request before this one
        }
        _input.HoldBack();
        if (_queue.IsBroken() || _connection._isStopping)
        {
            return false;
        }
        _input.BeginRequest();
        return true;
    }

    void BeforeStore(RequestKind kind) override
    {
        const bool savesNow = kind == RequestKind::PersistentChange && _connection._limits.savesAtOnce;
        if (savesNow || kind == RequestKind::Restore)
        {
            _round.BeforeSlowRequest();
        }
        else if (kind == RequestKind::Change || kind == RequestKind::PersistentChange)
        {
            _round.BeforeQuickChange();
        }
        else
        {
            _round.Send();
        }
        if (kind == RequestKind::Subscription)
        {
            BeforeSubscription();
        }
    }

    void OnSubscribed(const settings::GroupNameCollection& groups, std::size_t count) override
    {
        _connection._subscribed.Add(groups, count);
    }

    /// The one before, if there was one.
    void CountRequest()
    {
        const bool wasRequest = _input.GetRequestBytes() > 0;
        _connection._requests.store(_connection._requests + (wasRequest ? 1 : 0), std::memory_order_relaxed);
    }

    void CountInput()
    {
        const std::size_t received = _input.GetReceivedBytes();
        _connection._receivedBytes.store(_connection._receivedBytes + (received - _counted), std::memory_order_relaxed);
        _counted = received;
    }

    /// What it asks for again costs the server as much as the first time, and counts.
    void BeforeSubscription()
    {
        _subscribedBytes += _input.GetRequestBytes();
        if (_subscribedBytes > _connection._limits.maxMessage)
        {
            _queue.Break("it has subscribed to more than " + std::to_string(_connection._limits.maxMessage) +
                         " bytes of groups");
            throw osa::Exception("too many subscriptions");
        }
    }

    /// False when the client does not take what its socket has refused.
    bool SendRest()
    {
        const OutgoingQueue::OwnWait ownWait(_queue);
        std::optional<Clock::time_point> end;
        while (_queue.GetRefusedBytes() > 0)
        {
            milliseconds limit = LastWait;
            if (_connection._isStopping)
            {
                end = end.value_or(Clock::now() + LastWaitOfServer);
                limit = std::chrono::ceil<milliseconds>(std::max(*end - Clock::now(), Clock::duration()));
            }
            if (_connection._pSocket->Wait(false, true, static_cast<unsigned int>(limit.count())) == 0)
            {
                return false;
            }
            _queue.Drain();
        }
        return true;
    }

    ClientConnection& _connection;
    OutgoingQueue& _queue;
    NotificationRound _round;
    ClientInput _input;
    ClientOutput _output;
    std::istream _in;
    std::ostream _out;
    ConnectionHandler _handler;
    std::size_t _subscribedBytes = 0;  // of all requests to subscribe
    std::size_t _counted = 0;          // of what was received
};

ClientConnection::ClientConnection(std::unique_ptr<osa::TcpSocket> pSocket, const std::string& peer,
                                   const settings::server::ServerEnv& env, AccessControl& access,
                                   const ServerLimits& limits, GatheredQueues& gathered, IConnectionOwner& owner,
                                   const ClientArrival& arrival)
    : _env(env),
      _limits(limits),
      _gathered(gathered),
      _owner(owner),
      _pLogger(core::Logger::GetLogger("ClientConnection")),
      _peer(peer),
      _access(access, IdentityOf(*pSocket), _peer, SourceOf(*pSocket)),
      _arrival(arrival),
      _origin(OriginOf(*pSocket)),
      _pSocket(std::move(pSocket)),
      _pQueue(std::make_shared<OutgoingQueue>(*_pSocket, limits.maxBacklog, gathered)),
      _thread("Client", this, StackBytes, 0)
{
}

void ClientConnection::Stop()
{
    _isStopping = true;
    _pSocket->EndReading();  // wakes the thread
}

void ClientConnection::Run()
{
    // Whatever is thrown here: an owner who is not told would wait for ever.
    struct Ending
    {
        ClientConnection& connection;

        ~Ending()
        {
            connection._owner.OnConnectionEnded(connection);  // before the client hears of it, and may come back
            connection._pQueue->Break(std::string());         // somebody's round may still hold it
            connection._pSocket.reset();  // not later: this object may have to wait for somebody to destroy it
        }
    };
    const Ending ending{*this};
    _pLogger->Information("Client '%s' has connected", _peer.c_str());
    Serve();
}

void ClientConnection::Serve()
{
    _pQueue->Adopt();
    std::string failure;
    try
    {
        // Not on the stack, of which the system keeps every page that was ever touched.
        std::make_unique<Session>(*this)->Run();
    }
    catch (const std::exception& exception)
    {
        failure = exception.what();
    }
    // Where the connection was broken, what failed then is only what came of it.
    if (const std::string reason = _pQueue->GetReason(); !reason.empty())
    {
        _wasDropped = true;
        _pLogger->Warning("Client '%s' is disconnected, %s", _peer.c_str(), reason.c_str());
    }
    else if (!failure.empty() && !_pQueue->IsBroken())
    {
        _wasDropped = true;
        _pLogger->Error("Client '%s' is disconnected, its request failed: %s", _peer.c_str(), failure.c_str());
    }
    else
    {
        _pLogger->Information("Client '%s' has disconnected", _peer.c_str());
    }
}

ClientReport ClientConnection::GetReport() const
{
    ClientReport report;
    report.arrival = _arrival;
    report.since = _since;
    report.address = _pSocket->GetPeerIdentity() == nullptr ? _origin.peer : std::string();
    report.userId = _origin.user;
    report.process = _origin.process;
    report.program = _origin.program;
    report.requests = _requests.load(std::memory_order_relaxed);
    report.receivedBytes = _receivedBytes.load(std::memory_order_relaxed);
    report.sentBytes = _pQueue->GetSentBytes();
    report.waitingBytes = _pQueue->GetRefusedBytes();
    report.refusedChanges = _access.GetRefusals();
    report.subscriptions = _subscribed.Get(report.subscribed);
    return report;
}

}  // namespace korlo::daemon
