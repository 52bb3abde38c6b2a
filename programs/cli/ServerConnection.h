#pragma once
// What of the settings protocol the client library does not offer.

#include <string>

#include "common/Protocol.h"
#include "korlo/osa/TcpSocket.h"
#include "korlo/osa/TcpSocketStream.h"
#include "settings/GroupNameCollection.h"

namespace korlo::settings::cli
{

/// A connection to the settings server for the requests that only a tool makes. Every operation throws osa::Exception
/// when the connection is lost or no answer comes in time.
///
/// Thread safety: none of its own; the owner guards it.
class ServerConnection
{
public:
    /// Connects to where the client library looks for the server.
    /// @throws osa::Exception at once when nobody listens there.
    ServerConnection();

    /// The user layer, or all settings, as INI text.
    std::string Dump(bool all);

    /// What all clients of the server are subscribed to, names and patterns.
    GroupNameCollection GetSubscribedGroups();

private:
    std::string ReadLine();
    void CheckAnswered() const;

    osa::TcpSocket _socket;
    osa::TcpSocketStream _stream;
    const common::RequestWriter _writer{_stream.GetOstream()};
    const common::ResponseReader _reader{_stream};
};

}  // namespace korlo::settings::cli
