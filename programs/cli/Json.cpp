#include "Json.h"

namespace korlo::core
{

void to_json(nlohmann::json& value, const IniFile& document)
{
    value = nlohmann::json::object();
    for (const auto& [group, values] : document)
    {
        nlohmann::json& entry = value[group] = nlohmann::json::object();
        for (const auto& [key, text] : values)
        {
            entry[key] = text;
        }
    }
}

}  // namespace korlo::core

namespace korlo::settings::cli
{

std::string JsonOf(const nlohmann::json& value)
{
    constexpr int compact = -1;
    return value.dump(compact, ' ', false, nlohmann::json::error_handler_t::replace) + '\n';
}

}  // namespace korlo::settings::cli
