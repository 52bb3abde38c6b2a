#include "client/KorloSettingsClientImplConfirming.h"

#include <array>
#include <exception>
#include <string_view>

#include "client/KorloSettingsTcpConnection.h"
#include "client/RemoteCommands.h"
#include "common/Protocol.h"
#include "korlo/osa/Exception.h"
#include "settings/ServerAddress.h"

namespace korlo::settings::client
{
namespace
{

constexpr unsigned short NoDelay = 1;
constexpr unsigned short PortOfHost = 0;  // the one that goes with the host's name
constexpr bool IsConnected = true;

osa::TcpSocket* Connected(osa::TcpSocket& socket, const std::string& address, unsigned int timeoutMs)
{
    const ServerAddress server = address.empty() ? ServerAddress{KorloSettingsTcpConnection::ServerHost, PortOfHost}
                                                 : ServerAddress::Parse(address);
    socket.Connect(server.host.c_str(), server.port, timeoutMs);
    return &socket;
}

}  // namespace

KorloSettingsClientImplConfirming::Connection::Connection(const std::string& address, const ConfirmingLimits& limits)
    : socket(NoDelay),
      stream(Connected(socket, address, limits.connectMs), limits.answerMs)
{
}

KorloSettingsClientImplConfirming::KorloSettingsClientImplConfirming(const std::string& address,
                                                                     const ConfirmingLimits& limits)
    : KorloSettingsClientImplBlocking(IsConnected),
      _limits(limits),
      _pConnection(std::make_unique<Connection>(address, limits)),
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
    try
    {
        Exchange(command);
    }
    catch (const std::exception& exception)
    {
        _pConnection.reset();
        NoteConnection(!IsConnected);
        const bool isRead = command.GetResponseKeyword() == common::word::Data;
        throw osa::Exception("'%s' failed with the settings server at '%s': %s%s", name, _server.c_str(),
                             exception.what(), isRead ? "" : "; a change may or may not be made");
    }
}

void KorloSettingsClientImplConfirming::Exchange(RemoteCommand& command) const
{
    const GroupNameCollection noGroups;
    core::IniFile nothing;
    GetSettingsCommand confirmation(&noGroups, &nothing);
    std::ostream& out = _pConnection->stream.GetOstream();
    command.SendRequest(out);
    if (!command.GetResponseKeyword().empty())
    {
        ReadResponse(command);
        return;
    }
    confirmation.SendRequest(out);
    ReadResponse(confirmation);
}

void KorloSettingsClientImplConfirming::ReadResponse(RemoteCommand& command) const
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
    command.HandleResponse(in);
    CheckStreams();
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
    std::array<char, 1> byte{};
    const osa::TcpSocket::IoResult probe = _pConnection->socket.ReadSome(byte.data(), byte.size(), 0);
    if (probe.status == osa::TcpSocket::TimedOut)
    {
        throw osa::Exception("there was no answer for %u milliseconds", _limits.answerMs);
    }
    throw osa::Exception("it ended the connection (%s)", probe.status == osa::TcpSocket::Failed
                                                             ? osa::SystemReason(probe.error).c_str()
                                                             : "without an answer");
}

}  // namespace korlo::settings::client
