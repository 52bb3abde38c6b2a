#pragma once
// Which keys a configuration of the bridge may have.

#include <set>
#include <sstream>
#include <string>

#include "BridgeConfiguration.h"
#include "support/Files.h"
#include "support/TemporaryFolder.h"

namespace korlo::fleet
{

/// The keys of a group, as the bridge names them when it meets another one.
inline std::set<std::string> KeysOf(const std::string& group)
{
    const TemporaryFolder folder;
    const std::string path = folder.PathOf("mqtt.ini");
    WriteFile(path, '[' + group + "]\nnone=\n");
    const std::string message = MessageOf([&] { settings::mqtt::BridgeConfiguration::Read(path); });
    const std::string beginning = "it has ";
    std::istringstream names(message.substr(message.find(beginning) + beginning.size()));
    std::set<std::string> keys;
    for (std::string name; names >> name;)
    {
        keys.insert(name.substr(0, name.find(',')));
    }
    return keys;
}

}  // namespace korlo::fleet
