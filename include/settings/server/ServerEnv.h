#pragma once
// What a connection of the settings protocol is served from.

namespace korlo::settings::server
{

class SerializationManager;
class SettingsManager;

/// Given to each ClientHandler, which copies it. Both are borrowed and must outlive the handler.
struct ServerEnv
{
    SettingsManager* pSettingsManager;            ///< the store
    SerializationManager* pSerializationManager;  ///< the forms in which documents travel
};

}  // namespace korlo::settings::server
