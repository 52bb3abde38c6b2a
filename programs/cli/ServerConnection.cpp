#include "ServerConnection.h"

#include <algorithm>
#include <iterator>
#include <vector>

#include "client/ServerLookup.h"
#include "korlo/osa/Exception.h"

namespace korlo::settings::cli
{
namespace
{

namespace word = common::word;

constexpr unsigned short NoDelay = 1;
constexpr unsigned int ConnectTimeoutMs = 5'000;
constexpr unsigned int AnswerTimeoutMs = 15'000;

osa::TcpSocket* Connected(osa::TcpSocket& socket)
{
    const ServerAddress server = client::FindServer(client::ServerSocketPath);
    socket.Connect(server.host.c_str(), server.port, ConnectTimeoutMs);
    return &socket;
}

[[noreturn]] void ThrowMisunderstood()
{
    throw osa::Exception("Something else than a settings server seems to answer there");
}

}  // namespace

ServerConnection::ServerConnection() : _socket(NoDelay), _stream(Connected(_socket), AnswerTimeoutMs)
{
}

std::string ServerConnection::Dump(bool all)
{
    _writer.Dump(all);
    std::string text = _reader.ReadText();
    CheckAnswered();
    return text;
}

/// A group may be called "data", or be without a name, so that no line of the list itself can be told from its end.
/// But none is called ".": the first such line ends the answer to the get that follows.
GroupNameCollection ServerConnection::GetSubscribedGroups()
{
    _writer.InfoSubscribed();
    _writer.Get({});
    if (ReadLine() != word::SubscribedTitle || ReadLine() != word::SubscribedRule)
    {
        ThrowMisunderstood();
    }
    std::vector<std::string> lines;
    for (std::string line = ReadLine(); line != word::EndOfBlock; line = ReadLine())
    {
        lines.push_back(line);
    }
    const std::vector<std::string> ending = {"", word::Data};
    if (lines.size() < ending.size() || !std::equal(ending.rbegin(), ending.rend(), lines.rbegin()))
    {
        ThrowMisunderstood();
    }
    return GroupNameCollection(lines.begin(), std::prev(lines.end(), 2));
}

std::string ServerConnection::ReadLine()
{
    std::string line;
    std::getline(_stream, line);
    CheckAnswered();
    return line;
}

void ServerConnection::CheckAnswered() const
{
    if (!_stream.good())
    {
        throw osa::Exception("It ended the connection, or gave no answer for %u seconds", AnswerTimeoutMs / 1000);
    }
}

}  // namespace korlo::settings::cli
