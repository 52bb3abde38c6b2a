#include "Json.h"

#include <nlohmann/json.hpp>

namespace korlo::settings::cli
{
namespace
{

using nlohmann::json;

json Value(const core::IniFile& document)
{
    json value = json::object();
    for (const auto& [group, values] : document)
    {
        json& entry = value[group] = json::object();
        for (const auto& [key, text] : values)
        {
            entry[key] = text;
        }
    }
    return value;
}

std::string Line(const json& value)
{
    constexpr int compact = -1;
    return value.dump(compact, ' ', false, json::error_handler_t::replace) + '\n';
}

}  // namespace

std::string JsonOf(const std::string& value)
{
    return Line(json(value));
}

std::string JsonOf(const GroupNameCollection& names)
{
    return Line(json(names));
}

std::string JsonOf(const core::IniFile& document)
{
    return Line(Value(document));
}

std::string JsonOf(const GroupNameCollection& changedGroups, const core::IniFile& settings)
{
    return Line(json{{"groups", changedGroups}, {"settings", Value(settings)}});
}

std::string JsonOf(const std::string& resource, int total, const std::vector<ResourceConsumer>& consumers)
{
    json entries = json::array();
    for (const ResourceConsumer& consumer : consumers)
    {
        const json max = consumer.max ? json(*consumer.max) : json();
        entries.push_back({{"name", consumer.name}, {"used", consumer.used}, {"max", max}});
    }
    return Line({{"resource", resource}, {"total", total}, {"consumers", entries}});
}

std::string JsonOf(const AccessVerdict& verdict)
{
    json value = {{"allowed", verdict.isAllowed ? 1 : 0},
                  {"reason", verdict.reason},
                  {"rule", json()},
                  {"file", json()},
                  {"line", json()}};
    if (verdict.rule)
    {
        value.update({{"rule", verdict.rule->name}, {"file", verdict.rule->file}, {"line", verdict.rule->line}});
    }
    return Line(value);
}

std::string JsonOf(int rules, const std::vector<std::string>& warnings)
{
    return Line({{"rules", rules}, {"warnings", warnings}});
}

std::string JsonOf(const std::vector<std::pair<std::string, core::IniFile::BadLine>>& badLines)
{
    json lines = json::array();
    for (const auto& [file, line] : badLines)
    {
        lines.push_back(json{{"file", file}, {"line", line.number}, {"message", line.reason}});
    }
    return Line(lines);
}

}  // namespace korlo::settings::cli
