#include "support/Documents.h"

#include <algorithm>
#include <cstdio>
#include <malloc.h>
#include <random>

namespace korlo::benchmarks
{
namespace
{

constexpr unsigned int Seed = 20240229;

template <typename... Args>
std::string Text(const char* format, Args... args)
{
    char buffer[128];
    return std::string(buffer, static_cast<std::size_t>(std::snprintf(buffer, sizeof(buffer), format, args...)));
}

std::string Pair(std::size_t group, std::size_t key)
{
    return Text("parameter%05zu=value-%05zu-%08zu\n", key * 7 + group % 5, key, group * key);
}

std::string MakeText(const Shape& shape)
{
    std::string text;
    for (std::size_t group = 0; group < shape.groups; ++group)
    {
        text += Text("[Subsystem%03zu/Unit%03zu]\n", group / 100, group % 100);
        for (std::size_t key = 0; key < shape.keysEach; ++key)
        {
            text += Pair(group, key);
        }
    }
    return text;
}

core::IniFile Parse(const std::string& text)
{
    core::IniFile ini;
    ini.LoadFromString(text);
    return ini;
}

}  // namespace

const std::string& TextOf(const Shape& shape)
{
    static const std::string device = MakeText(Device);
    static const std::string large = MakeText(Large);
    return shape.groups == Device.groups ? device : large;
}

const core::IniFile& DocumentOf(const Shape& shape)
{
    static const core::IniFile device = Parse(TextOf(Device));
    static const core::IniFile large = Parse(TextOf(Large));
    return shape.groups == Device.groups ? device : large;
}

std::string ShuffledGroup(std::size_t keys)
{
    std::vector<std::string> lines;
    for (std::size_t key = 0; key < keys; ++key)
    {
        lines.push_back(Pair(0, key));
    }
    std::shuffle(lines.begin(), lines.end(), std::mt19937(Seed));
    std::string text = "[Group]\n";
    for (const std::string& line : lines)
    {
        text += line;
    }
    return text;
}

core::IniFile StoreDocument(std::size_t groups)
{
    constexpr std::size_t networkGroups = 64;
    constexpr std::size_t keysEach = 10;
    core::IniFile ini;
    for (std::size_t group = 0; group < groups; ++group)
    {
        const std::string name = group < networkGroups ? Text("Network/Interface%03zu", group)
                                                       : Text("Subsystem%04zu/Unit%03zu", group / 100, group % 100);
        for (std::size_t key = 0; key < keysEach; ++key)
        {
            ini.SetValue(name, Text("parameter%05zu", key), Text("value-%05zu-%08zu", key, group));
        }
    }
    return ini;
}

BareMap ParseBare(const std::string& text)
{
    BareMap map;
    std::map<std::string, std::string>* pGroup = nullptr;
    for (std::size_t at = 0; at < text.size();)
    {
        const std::size_t end = std::min(text.find('\n', at), text.size());
        if (text[at] == '[')
        {
            pGroup = &map[text.substr(at + 1, end - at - 2)];
        }
        else
        {
            const std::size_t equals = text.find('=', at);
            (*pGroup)[text.substr(at, equals - at)] = text.substr(equals + 1, end - equals - 1);
        }
        at = end + 1;
    }
    return map;
}

void CleanHeap(const benchmark::State&)
{
    malloc_trim(0);
}

std::vector<std::pair<std::string, std::string>> PresentKeys(const core::IniFile& ini, std::size_t count)
{
    std::vector<std::pair<std::string, std::string>> keys;
    for (const auto& [group, values] : ini)
    {
        for (const auto& [key, value] : values)
        {
            keys.emplace_back(group, key);
        }
    }
    std::shuffle(keys.begin(), keys.end(), std::mt19937(Seed));
    keys.resize(std::min(count, keys.size()));
    return keys;
}

}  // namespace korlo::benchmarks
