#pragma once
// The configuration file of the bridge.

#include <optional>
#include <string>

#include "settings/GroupNameCollection.h"

namespace korlo::settings::mqtt
{

/// The group in which the bridge keeps, for each group, the version of the last wish that was applied. It is the
/// bridge's own: neither reported nor accepted.
constexpr const char* FleetGroup = "KorloSettings/Fleet";

/// The broker, and who this device is to it.
///
/// Thread safety: none of its own; the owner guards it.
struct BrokerConfiguration
{
    std::string host;
    int port = 0;
    std::optional<std::string> username;
    std::optional<std::string> password;
    std::string caFile;  ///< empty: no TLS
    std::string certificateFile;
    std::string keyFile;
    std::string clientId;
    int keepaliveSeconds = 60;
};

/// What the file says.
///
/// Thread safety: none of its own; the owner guards it.
struct BridgeConfiguration
{
    /// @throws osa::Exception "FILE:LINE: ..." for what makes no sense; without the line where no line is to blame. No
    ///         text holds a password.
    static BridgeConfiguration Read(const std::string& path);

    BrokerConfiguration broker;
    std::string deviceName;
    std::string settingsAddress;  ///< empty: where clients look by themselves
    GroupNameCollection report;   ///< patterns
    GroupNameCollection accept;
};

}  // namespace korlo::settings::mqtt
