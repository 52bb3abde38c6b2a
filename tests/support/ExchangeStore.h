#pragma once
// The store that the protocol's exchanges start from.

#include <istream>
#include <sstream>
#include <string>

#include "settings/server/ClientHandler.h"
#include "settings/server/SerializationManager.h"
#include "settings/server/SettingsManager.h"
#include "support/Documents.h"
#include "support/ProtocolExchanges.h"
#include "support/RecordingPersister.h"

namespace korlo::settings::server
{

/// What a handler of the exchanges stands on, and a short way to run one.
///
/// Thread safety: as its members'.
struct ExchangeStore
{
    std::string Settings() const
    {
        std::ostringstream out;
        manager.DumpAllSettings(out);
        return out.str();
    }

    std::string User() const
    {
        std::ostringstream out;
        manager.DumpUserSettings(out);
        return out.str();
    }

    std::string Serve(std::istream& in)
    {
        std::ostringstream out;
        ClientHandler handler(&env, &in, &out);
        handler.Run();
        return out.str();
    }

    std::string Serve(const std::string& requests)
    {
        std::istringstream in(requests);
        return Serve(in);
    }

    RecordingPersister persister = [] {
        RecordingPersister loaded;
        loaded.defaults = {Ini(ExchangeDefaults)};
        return loaded;
    }();
    SettingsManager manager{&persister, nullptr, nullptr, false};
    SerializationManager serialization;
    ServerEnv env{&manager, &serialization};
};

}  // namespace korlo::settings::server
