#pragma once
// The text forms that a connection can choose from, by name.

#include <map>
#include <string>

#include "settings/server/ISettingsSerializer.h"

namespace korlo::settings::server
{

/// Owns one serializer of each form: "ini", the INI text of a document, and "phparray", the text form of PHP arrays.
///
/// Thread safety: after construction, all methods from any thread.
class SerializationManager
{
public:
    SerializationManager();
    SerializationManager(const SerializationManager&) = delete;
    SerializationManager& operator=(const SerializationManager&) = delete;

    /// Deletes the serializers in name order. If a destructor throws, the exception is dropped and the serializers
    /// after that one are not deleted.
    ~SerializationManager();

    /// The serializer of exactly that name, or null. Owned by the manager.
    ISettingsSerializer* GetSerializer(const std::string& name) const;

protected:
    /// For the constructor of a derived class that adds a form of its own.
    /// @param pSerializer taken, unless the name is there already: then nothing changes.
    /// @return whether it was taken.
    bool Register(const std::string& name, ISettingsSerializer* pSerializer);

private:
    std::map<std::string, ISettingsSerializer*> _serializers;  // owned
};

}  // namespace korlo::settings::server
