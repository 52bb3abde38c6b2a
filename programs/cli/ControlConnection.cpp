#include "ControlConnection.h"

#include <string_view>

#include "ControlProtocol.h"
#include "IniText.h"
#include "korlo/osa/Exception.h"
#include "korlo/osa/Mutex.h"

namespace korlo::settings::cli
{
namespace
{

constexpr unsigned short NoPort = 0;
constexpr unsigned short NoDelay = 1;
constexpr unsigned int ConnectTimeoutMs = 5'000;
constexpr const char* HintAtDoor = "--control PATH names the socket that the server's own --control opened; only the "
                                   "server's user and root may use it";

}  // namespace

ControlConnection::ControlConnection(const std::string& path, const Limits& limits)
    : _path(path),
      _limits(limits),
      _socket(NoDelay),
      _stream(&_socket, limits.waitMs)
{
    try
    {
        _socket.Connect(("unix:" + path).c_str(), NoPort, ConnectTimeoutMs);
    }
    catch (const osa::Exception& error)
    {
        throw Failure(StatusUnusable, "failed to reach the server's control door: " + Reason(error.what()), HintAtDoor);
    }
}

core::IniFile ControlConnection::Ask(const std::string& request)
{
    // A door that turns its clients away says why, and closes, before it has read anything: the write fails then, and
    // the reason is there all the same.
    const std::string line = request + '\n';
    _socket.WriteAll(line.data(), line.size(), _limits.waitMs);
    return ReadNext();
}

core::IniFile ControlConnection::ReadNext()
{
    _bytes = 0;
    const std::string first = ReadLine();
    if (first.starts_with(control::ErrorPrefix))
    {
        ThrowError(first.substr(control::ErrorPrefix.size()));
    }
    if (first != control::Ok)
    {
        throw Failed("something else than a control door seems to answer there", HintAtDoor);
    }
    std::string document;
    for (std::string next = ReadLine(); next != control::EndOfAnswer; next = ReadLine())
    {
        document += next + '\n';
    }
    return ReadQuietly(document);
}

std::string ControlConnection::ReadLine()
{
    std::string line;
    for (;;)
    {
        const int next = _stream.get();
        if (next == std::istream::traits_type::eof())
        {
            if (_limits.waitMs == osa::Infinite)
            {
                throw Failed("it ended the connection");
            }
            throw Failed("it ended the connection, or gave no answer for " + std::to_string(_limits.waitMs / 1000) +
                             " seconds",
                         HintAtDoor);
        }
        if (++_bytes > _limits.mostBytes)
        {
            throw Failed("its answer has more than " + std::to_string(_limits.mostBytes) + " bytes");
        }
        if (next == '\n')
        {
            return line;
        }
        line += static_cast<char>(next);
    }
}

/// The door's own errors mean that the word was not asked at all.
void ControlConnection::ThrowError(const std::string& message) const
{
    if (message == control::TooManyClients)
    {
        throw Failed(message);
    }
    if (message.starts_with(control::UnknownWord))
    {
        throw Failed(message + "; the server is older than this program");
    }
    throw ControlError(message);
}

Failure ControlConnection::Failed(const std::string& reason, const std::string& hint) const
{
    return Failure(StatusUnusable, "failed to ask the server's control door " + Quoted(_path) + ": " + reason, hint);
}

}  // namespace korlo::settings::cli
