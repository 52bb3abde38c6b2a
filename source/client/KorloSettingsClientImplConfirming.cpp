#include "client/KorloSettingsClientImplConfirming.h"

#include <array>
#include <exception>
#include <string_view>

#include "client/RemoteCommands.h"
#include "common/Protocol.h"
#include "korlo/osa/Exception.h"
#include "settings/RefusedException.h"

namespace korlo::settings::client
{
namespace
{

constexpr unsigned short NoDelay = 1;
constexpr bool IsConnected = true;

}  // namespace

KorloSettingsClientImplConfirming::Connection::Connection(const ServerAddress& server, const ConfirmingLimits& limits)
    : socket(NoDelay),
      stream(&socket, limits.answerMs)
{
    socket.Connect(server.host.c_str(), server.port, limits.connectMs);
}

KorloSettingsClientImplConfirming::KorloSettingsClientImplConfirming(const std::string& address,
                                                                     const ConfirmingLimits& limits,
                                                                     const std::string& socketPath)
    : KorloSettingsClientImplBlocking(IsConnected),
      _limits(limits),
      _pConnection(std::make_unique<Connection>(
          address.empty() ? FindServer(socketPath) : ServerAddress::Parse(address), limits)),
      _server(address.empty() ? _pConnection->socket.GetPeerAddress() : address)
{
}

KorloSettingsClientImplConfirming::~KorloSettingsClientImplConfirming()
{
    if (_pConnection != nullptr)
    {
        std::array<char, 1> nothing{};
        _pConnection->socket.LimitWrites(_limits.quitMs);
        common::RequestWriter(_pConnection->stream.GetOstream()).Quit();
        _pConnection->socket.ReadSome(nothing.data(), nothing.size(), _limits.quitMs);
    }
}

void KorloSettingsClientImplConfirming::RunCommand(const char* name, RemoteCommand& command) const
{
    const osa::MutexAutoLock lock(&_mutex);
    if (_pConnection == nullptr)
    {
        throw osa::Exception("'%s' was not sent to the settings server at '%s': an earlier failure has closed the "
                             "connection, and this client makes no other one",
                             name, _server.c_str());
    }
    std::optional<common::Refusal> refusal;
    try
    {
        refusal = Exchange(command);
    }
    catch (const std::exception& exception)
    {
        _pConnection.reset();
        NoteConnection(!IsConnected);
        const bool isRead = command.GetResponseKeyword() == common::word::Data;
        throw osa::Exception("'%s' failed with the settings server at '%s': %s%s", name, _server.c_str(),
                             exception.what(), isRead ? "" : "; a change may or may not be made");
    }
    if (refusal)
    {
        throw RefusedException(refusal->operation, refusal->groups);
    }
}

/// Returns what the server says of a change that it refused, which can be this one alone: each change is asked after.
std::optional<common::Refusal> KorloSettingsClientImplConfirming::Exchange(RemoteCommand& command) const
{
    const GroupNameCollection refused{common::RefusedGroup};
    core::IniFile answer;
    GetSettingsCommand confirmation(&refused, &answer);
    std::ostream& out = _pConnection->stream.GetOstream();
    command.SendRequest(out);
    if (!command.GetResponseKeyword().empty() && ReadResponse(command))
    {
        return std::nullopt;  // a read, or a change that is made
    }
    confirmation.SendRequest(out);
    ReadResponse(confirmation);
    return common::Refusal::FindIn(answer);
}

/// Returns how the request came out.
bool KorloSettingsClientImplConfirming::ReadResponse(RemoteCommand& command) const
{
    CheckStreams();
    std::array<char, 32> line{};  // longer than every keyword: what does not fit is none
    std::istream& in = _pConnection->stream;
    in.getline(line.data(), line.size());
    if (std::string_view(line.data()) != command.GetResponseKeyword() && !in.eof())
    {
        throw osa::Exception("something else than a settings server seems to answer there");
    }
    CheckStreams();
    const bool outcome = command.HandleResponse(in);
    CheckStreams();
    return outcome;
}

void KorloSettingsClientImplConfirming::CheckStreams() const
{
    if (_pConnection->stream.good() && _pConnection->stream.GetOstream().good())
    {
        return;
    }
    if (_pConnection->stream.bad())  // the connection's own end is no such failure
    {
        throw osa::Exception("memory ran out");
    }
    // A server that takes no more requests is about to end the connection.
    const unsigned int waitMs = _pConnection->stream.GetOstream().good() ? 0 : _limits.quitMs;
    std::array<char, 1> byte{};
    const osa::TcpSocket::IoResult probe = _pConnection->socket.ReadSome(byte.data(), byte.size(), waitMs);
    if (probe.status == osa::TcpSocket::TimedOut)
    {
        throw osa::Exception("there was no answer for %u milliseconds", _limits.answerMs);
    }
    throw osa::Exception("it ended the connection (%s)", probe.status == osa::TcpSocket::Failed
                                                             ? osa::SystemReason(probe.error).c_str()
                                                             : "without an answer");
}

}  // namespace korlo::settings::client
