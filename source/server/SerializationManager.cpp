#include "settings/server/SerializationManager.h"

#include <memory>

#include "server/IniFileSettingsSerializer.h"
#include "server/PhpArraySettingsSerializer.h"

namespace korlo::settings::server
{

SerializationManager::SerializationManager()
{
    auto pIni = std::make_unique<IniFileSettingsSerializer>();
    auto pPhpArray = std::make_unique<PhpArraySettingsSerializer>();
    _serializers = {{"ini", pIni.get()}, {"phparray", pPhpArray.get()}};
    // Not before: where memory runs out above, nobody else would delete them.
    static_cast<void>(pIni.release());
    static_cast<void>(pPhpArray.release());
}

SerializationManager::~SerializationManager()
{
    // Not unique_ptr: its deletion must not throw, while a form that somebody registered may.
    try
    {
        for (const auto& [name, pSerializer] : _serializers)
        {
            delete pSerializer;
        }
    }
    catch (...)
    {
    }
    _serializers.clear();
}

ISettingsSerializer* SerializationManager::GetSerializer(const std::string& name) const
{
    const auto entry = _serializers.find(name);
    return entry == _serializers.end() ? nullptr : entry->second;
}

bool SerializationManager::Register(const std::string& name, ISettingsSerializer* pSerializer)
{
    return _serializers.try_emplace(name, pSerializer).second;
}

}  // namespace korlo::settings::server
