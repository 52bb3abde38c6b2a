#include "ClientConnection.h"

#include <exception>
#include <istream>
#include <ostream>

#include "ClientInput.h"
#include "ClientOutput.h"
#include "NotificationRound.h"
#include "korlo/osa/Exception.h"
#include "settings/server/ClientHandler.h"

namespace korlo::daemon
{
namespace
{

constexpr unsigned int StackBytes = 64 * 1024;
constexpr unsigned int LastWaitMs = 10'000;  // for a client that has sent its last request and does not read

}  // namespace

/// The streams and the handler of a connection, for as long as it is served.
///
/// Thread safety: made and used on the connection's own thread; the handler lets other threads write.
class ClientConnection::Session : private settings::server::IRequestGate
{
public:
    explicit Session(ClientConnection& connection)
        : _queue(*connection._pQueue),
          _maxMessage(connection._limits.maxMessage),
          _input(*connection._pSocket, _queue, _maxMessage),
          _output(_queue),
          _in(&_input),
          _out(&_output),
          _handler(&connection._env, &_in, &_out)
    {
    }

    void Run()
    {
        _handler.Run(*this);
        if (NotificationRound* pRound = NotificationRound::Current())
        {
            pRound->Flush();  // nobody waits for this client's last bytes
        }
        if (_wasCut || (!_in.good() && _input.IsInsideRequest()))
        {
            _queue.Break("it left in the middle of a request");
        }
        else if (!_input.SendRest(LastWaitMs))
        {
            _queue.Break("it does not read its responses");
        }
    }

private:
    void BeforeRequest() override
    {
        if (!_in.good())
        {
            _wasCut = true;  // inside the blocks of the request before this one
            return;
        }
        if (_handler.GetSubscribedBytes() > _maxMessage)
        {
            _queue.Break("it has subscribed to more than " + std::to_string(_maxMessage) + " bytes of groups");
            throw osa::Exception("too many subscriptions");
        }
        if (_handler.IsSubscribed())
        {
            _input.ExpectNotifications();
        }
        _input.HoldBack();
        _input.BeginRequest();
    }

    OutgoingQueue& _queue;
    const std::size_t _maxMessage;
    ClientInput _input;
    ClientOutput _output;
    std::istream _in;
    std::ostream _out;
    settings::server::ClientHandler _handler;
    bool _wasCut = false;
};

ClientConnection::ClientConnection(std::unique_ptr<osa::TcpSocket> pSocket, const settings::server::ServerEnv& env,
                                   const ServerLimits& limits, IConnectionOwner& owner)
    : _env(env),
      _limits(limits),
      _owner(owner),
      _pLogger(core::Logger::GetLogger("ClientConnection")),
      _peer(pSocket->GetPeerAddress()),
      _pSocket(std::move(pSocket)),
      _pQueue(std::make_shared<OutgoingQueue>(*_pSocket, limits.maxBacklog)),
      _thread("Client", this, StackBytes, 0)
{
}

void ClientConnection::Start()
{
    _thread.Run();
}

void ClientConnection::Stop()
{
    _pQueue->Break(std::string());
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
        const NotificationRound round;
        Session(*this).Run();
    }
    catch (const std::exception& exception)
    {
        failure = exception.what();
    }
    LogEnd(failure);
}

void ClientConnection::LogEnd(const std::string& failure) const
{
    // Where the connection was broken, what failed then is only what came of it.
    if (const std::string reason = _pQueue->GetReason(); !reason.empty())
    {
        _pLogger->Warning("Client '%s' is disconnected, %s", _peer.c_str(), reason.c_str());
    }
    else if (!failure.empty() && !_pQueue->IsBroken())
    {
        _pLogger->Error("Client '%s' is disconnected, its request failed: %s", _peer.c_str(), failure.c_str());
    }
    else
    {
        _pLogger->Information("Client '%s' has disconnected", _peer.c_str());
    }
}

}  // namespace korlo::daemon
