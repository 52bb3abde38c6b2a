#include "BridgeConfiguration.h"

#include <algorithm>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <string_view>
#include <utility>

#include <mosquitto.h>

#include "NumberText.h"
#include "korlo/core/IniReader.h"
#include "korlo/osa/Exception.h"
#include "settings/ServerAddress.h"

namespace korlo::settings::mqtt
{
namespace
{

constexpr std::size_t MostBytes = 1024 * 1024;
constexpr int MostPort = 0xFFFF;

std::string Trimmed(std::string_view text)
{
    constexpr std::string_view blanks = " \t";
    const std::size_t first = text.find_first_not_of(blanks);
    return first == std::string_view::npos ? ""
                                           : std::string(text.substr(first, text.find_last_not_of(blanks) - first + 1));
}

GroupNameCollection PatternsIn(std::string_view text)
{
    GroupNameCollection patterns;
    for (std::size_t end = 0; end != std::string_view::npos; text.remove_prefix(std::min(text.size(), end + 1)))
    {
        end = text.find(',');
        const std::string pattern = Trimmed(text.substr(0, end));
        if (pattern.empty())
        {
            throw osa::Exception("an entry of the list is empty");
        }
        patterns.insert(pattern);
        if (end == std::string_view::npos)
        {
            break;
        }
    }
    return patterns;
}

int NumberFrom(const std::string& text, int least, int most)
{
    const int number = NumberIn<int>(text).value_or(least - 1);
    if (number < least || number > most)
    {
        throw osa::Exception("'%s' is not a number from %d to %d", text.c_str(), least, most);
    }
    return number;
}

/// Opens it, since what is missing should not show up first when the broker is called.
std::string ReadableFile(const std::string& path)
{
    if (!std::ifstream(path).good())
    {
        throw osa::Exception("'%s' cannot be read", path.c_str());
    }
    return path;
}

/// The first line.
std::string PasswordIn(const std::string& path)
{
    std::ifstream file(ReadableFile(path));
    std::string password;
    std::getline(file, password);
    if (password.ends_with('\r'))
    {
        password.pop_back();
    }
    if (password.empty())
    {
        throw osa::Exception("there is no password in the first line of '%s'", path.c_str());
    }
    return password;
}

/// A text that MQTT can carry as one.
std::string Text(const std::string& text)
{
    if (text.empty())
    {
        throw osa::Exception("it is empty");
    }
    constexpr std::size_t most = 0xFFFF;
    if (text.size() > most || text.find('\0') != std::string::npos ||
        mosquitto_validate_utf8(text.data(), static_cast<int>(text.size())) != MOSQ_ERR_SUCCESS)
    {
        throw osa::Exception("it is not text in UTF-8 of at most %zu bytes without control characters", most);
    }
    return text;
}

/// Reads the file line by line. The first mistake ends it.
class Reader : public core::IIniObserver
{
public:
    explicit Reader(const std::string& path) : _path(path) {}

    BridgeConfiguration Read()
    {
        core::IniReader::ReadFile(_path.c_str(), *this, MostBytes);
        CheckWhole();
        return std::move(_read);
    }

    void OnGroup(std::size_t line, std::string_view name) override
    {
        _group = name;
        if (!std::any_of(_keys.begin(), _keys.end(), [this](const auto& key) { return key.first.first == _group; }))
        {
            Refuse(line, "there is no group [" + _group + "], only [Broker], [Device], [Settings], [Report], [Accept]");
        }
    }

    void OnValue(std::size_t line, std::string_view key, std::string_view value) override
    {
        const Key name{_group, std::string(key)};
        const auto found = _keys.find(name);
        if (found == _keys.end())
        {
            Refuse(line, "[" + _group + "] has no key '" + name.second + "'; it has " + KeysOfGroup());
        }
        if (!_lines.try_emplace(name, line).second)
        {
            Refuse(line, "'" + name.second + "' of [" + _group + "] is there already, in line " +
                             std::to_string(_lines[name]));
        }
        Try(line, name.second, [&] { found->second(std::string(value)); });
    }

    void OnBadLine(std::size_t line, const char* reason) override { Refuse(line, reason); }

private:
    using Key = std::pair<std::string, std::string>;  // group and key

    [[noreturn]] void Refuse(std::size_t line, const std::string& reason) const
    {
        throw osa::Exception("%s:%zu: %s", _path.c_str(), line, reason.c_str());
    }

    template <typename Check>
    void Try(std::size_t line, const std::string& key, const Check& check) const
    {
        std::string fault;
        try
        {
            check();
            return;
        }
        catch (const osa::Exception& exception)
        {
            fault = exception.what();
        }
        Refuse(line, key + ": " + fault);
    }

    std::string KeysOfGroup() const
    {
        std::string names;
        for (const auto& [key, take] : _keys)
        {
            names += key.first == _group ? (names.empty() ? "" : ", ") + key.second : "";
        }
        return names;
    }

    void Require(const char* group, const char* key) const
    {
        if (!_lines.contains({group, key}))
        {
            throw osa::Exception("%s: '%s' of [%s] is missing", _path.c_str(), key, group);
        }
    }

    /// What one key is of no use, or makes no sense, without.
    void RequireWith(const char* key, const char* other) const
    {
        const auto line = _lines.find({"Broker", key});
        if (line != _lines.end() && !_lines.contains({"Broker", other}))
        {
            Refuse(line->second, std::string(key) + " needs " + other);
        }
    }

    void CheckWhole()
    {
        Require("Broker", "host");
        Require("Device", "name");
        RequireWith("password", "username");
        RequireWith("password-file", "username");
        RequireWith("cert-file", "ca-file");
        RequireWith("cert-file", "key-file");
        RequireWith("key-file", "cert-file");
        const auto file = _lines.find({"Broker", "password-file"});
        if (file != _lines.end() && _lines.contains({"Broker", "password"}))
        {
            Refuse(file->second, "password-file and password exclude each other");
        }
        constexpr int usualPort = 1883;
        constexpr int usualPortOfTls = 8883;
        BrokerConfiguration& broker = _read.broker;
        broker.port = broker.port != 0 ? broker.port : broker.caFile.empty() ? usualPort : usualPortOfTls;
        if (broker.clientId.empty())
        {
            Try(_lines[{"Device", "name"}], "name: it is the client-id, too, unless [Broker] has one",
                [&] { broker.clientId = Text(_read.deviceName); });
        }
    }

    const std::string _path;
    BridgeConfiguration _read;
    std::string _group;
    std::map<Key, std::size_t> _lines;  // of the keys that the file has

    const std::map<Key, std::function<void(const std::string&)>> _keys = {
        {{"Broker", "host"}, [this](const std::string& text) { _read.broker.host = Text(text); }},
        {{"Broker", "port"}, [this](const std::string& text) { _read.broker.port = NumberFrom(text, 1, MostPort); }},
        {{"Broker", "username"}, [this](const std::string& text) { _read.broker.username = Text(text); }},
        {{"Broker", "password"},
         [this](const std::string& text) {
             constexpr char end = '\0';
             if (text.empty() || text.find(end) != std::string::npos)
             {
                 throw osa::Exception("it is empty or holds a zero byte");
             }
             _read.broker.password = text;
         }},
        {{"Broker", "password-file"}, [this](const std::string& text) { _read.broker.password = PasswordIn(text); }},
        {{"Broker", "ca-file"}, [this](const std::string& text) { _read.broker.caFile = ReadableFile(text); }},
        {{"Broker", "cert-file"},
         [this](const std::string& text) { _read.broker.certificateFile = ReadableFile(text); }},
        {{"Broker", "key-file"}, [this](const std::string& text) { _read.broker.keyFile = ReadableFile(text); }},
        {{"Broker", "client-id"}, [this](const std::string& text) { _read.broker.clientId = Text(text); }},
        {{"Broker", "keepalive"},
         [this](const std::string& text) {
             constexpr int least = 5;  // libmosquitto takes none below
             _read.broker.keepaliveSeconds = NumberFrom(text, least, 0xFFFF);
         }},
        {{"Device", "name"},
         [this](const std::string& text) {
             if (text.empty())
             {
                 throw osa::Exception("it is empty");
             }
             _read.deviceName = text;
         }},
        {{"Settings", "address"},
         [this](const std::string& text) {
             ServerAddress::Parse(text);
             _read.settingsAddress = text;
         }},
        {{"Report", "groups"}, [this](const std::string& text) { _read.report = PatternsIn(text); }},
        {{"Accept", "groups"}, [this](const std::string& text) { _read.accept = PatternsIn(text); }},
    };
};

}  // namespace

BridgeConfiguration BridgeConfiguration::Read(const std::string& path)
{
    return Reader(path).Read();
}

}  // namespace korlo::settings::mqtt
