#pragma once
// What of the settings protocol the client library does not offer.

#include <string>
#include <string_view>

#include "common/Protocol.h"
#include "korlo/core/IniFile.h"
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
    static constexpr const char* ServerHost = "korlo-settings-server";

    /// Connects to where the client library looks for the server.
    /// @throws osa::Exception at once when nobody listens there.
    ServerConnection();

    /// The selected groups, whatever bytes their names hold.
    core::IniFile GetSettings(const GroupNameCollection& groups);

    /// The user layer, or all settings, as INI text.
    std::string Dump(bool all);

    /// What all clients of the server are subscribed to, names and patterns.
    GroupNameCollection GetSubscribedGroups();

    /// True when a list of the protocol can carry all of them.
    static bool CanCarry(const GroupNameCollection& groups);

    /// A pattern that a list can carry and that selects the group too, and perhaps more; the name itself if it fits.
    static std::string LooseName(std::string name);

private:
    void Expect(std::string_view expected);
    std::string ReadLine();
    void CheckAnswered() const;

    osa::TcpSocket _socket;
    osa::TcpSocketStream _stream;
    const common::RequestWriter _writer{_stream.GetOstream()};
    const common::ResponseReader _reader{_stream};
};

}  // namespace korlo::settings::cli
