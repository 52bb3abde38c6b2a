#pragma once
// What of the settings protocol the client library does not offer.

#include <string>

#include "settings/GroupNameCollection.h"

namespace korlo::settings::cli
{

// Each makes a connection of its own to where the client library looks for the server, and throws osa::Exception at
// once when nobody listens there, and later when the connection is lost or no answer comes in time.

/// The user layer, or all settings, as INI text.
std::string DumpServer(bool all);

/// What all clients of the server are subscribed to, names and patterns.
GroupNameCollection GetSubscribedGroupsOfServer();

}  // namespace korlo::settings::cli
