#include "ServerRequests.h"

#include <algorithm>
#include <iterator>
#include <vector>

#include "client/ServerLookup.h"
#include "common/Protocol.h"
#include "korlo/osa/Exception.h"
#include "korlo/osa/TcpSocket.h"
#include "korlo/osa/TcpSocketStream.h"

namespace korlo::settings::cli
{
namespace
{

namespace word = common::word;

constexpr unsigned short NoDelay = 1;
constexpr unsigned int ConnectTimeoutMs = 5'000;
constexpr unsigned int AnswerTimeoutMs = 15'000;

/// Thread safety: none of its own; lives within one call.
struct Connection
{
    Connection() : socket(NoDelay), stream(&socket, AnswerTimeoutMs)
    {
        const ServerAddress server = client::FindServer(client::ServerSocketPath);
        socket.Connect(server.host.c_str(), server.port, ConnectTimeoutMs);
    }

    std::string ReadLine()
    {
        std::string line;
        std::getline(stream, line);
        CheckAnswered();
        return line;
    }

    void CheckAnswered() const
    {
        if (!stream.good())
        {
            throw osa::Exception("It ended the connection, or gave no answer for %u seconds", AnswerTimeoutMs / 1000);
        }
    }

    osa::TcpSocket socket;
    osa::TcpSocketStream stream;
    const common::RequestWriter writer{stream.GetOstream()};
};

[[noreturn]] void ThrowMisunderstood()
{
    throw osa::Exception("Something else than a settings server seems to answer there");
}

}  // namespace

std::string DumpServer(bool all)
{
    Connection connection;
    connection.writer.Dump(all);
    std::string text = common::ResponseReader(connection.stream).ReadText();
    connection.CheckAnswered();
    return text;
}

/// A group may be called "data", or be without a name, so that no line of the list itself can be told from its end.
/// But none is called ".": the first such line ends the answer to the get that follows.
GroupNameCollection GetSubscribedGroupsOfServer()
{
    Connection connection;
    connection.writer.InfoSubscribed();
    connection.writer.Get({});
    if (connection.ReadLine() != word::SubscribedTitle || connection.ReadLine() != word::SubscribedRule)
    {
        ThrowMisunderstood();
    }
    std::vector<std::string> lines;
    for (std::string line = connection.ReadLine(); line != word::EndOfBlock; line = connection.ReadLine())
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

}  // namespace korlo::settings::cli
