#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <optional>
#include <string_view>
#include <utility>

#include "Commands.h"
#include "ControlAnswer.h"
#include "ControlConnection.h"
#include "ControlProtocol.h"
#include "IniText.h"
#include "Json.h"
#include "NumberText.h"
#include "StandardStreams.h"
#include "Table.h"
#include "korlo/osa/Thread.h"

namespace korlo::settings::cli
{
namespace
{

using core::IniFile;
using nlohmann::json;
using Clock = std::chrono::steady_clock;
using Number = unsigned long long;
using Rows = std::vector<TableRow>;

constexpr std::string_view ClientPrefix = "Client/";
constexpr const char* SubscriptionPrefix = "subscription.";

/// A client of the server.
struct ConnectedClient
{
    Number number;
    IniFile::KeyValueMap values;          // without `subscription.1` ...
    std::vector<std::string> subscribed;  // those
};

/// The answer's number; 0 where it does not say.
Number NumberOf(const IniFile& answer, const std::string& group, const std::string& key)
{
    return NumberIn<Number>(answer.GetValueOrDefault(group, key)).value_or(0);
}

std::string Said(const IniFile& answer, const std::string& group, const std::string& key)
{
    return answer.HasValue(group, key) ? answer.GetValue(group, key) : "?";
}

/// What the door answers to a word; until the time is up a server that does not answer is asked again.
IniFile Ask(const Invocation& invocation, const char* word)
{
    constexpr unsigned int pauseMs = 100;
    const Clock::time_point end = Clock::now() + std::chrono::seconds(invocation.waitSeconds);
    for (;;)
    {
        try
        {
            return ControlConnection(invocation.control).Ask(word);
        }
        catch (const ControlError& error)
        {
            throw Failure(StatusUnusable, "the server failed to answer: " + Reason(error.what()));
        }
        catch (const Failure&)
        {
            if (Clock::now() >= end)
            {
                throw;
            }
        }
        osa::Thread::CurrentThread::Sleep(pauseMs);
    }
}

/// "3 h 12 min"
std::string DurationText(Number seconds)
{
    constexpr Number minute = 60;
    constexpr Number hour = 60 * minute;
    constexpr Number day = 24 * hour;
    const auto both = [seconds](Number large, const char* largeName, Number small, const char* smallName) {
        return std::to_string(seconds / large) + largeName + std::to_string(seconds % large / small) + smallName;
    };
    return seconds < minute ? std::to_string(seconds) + " s"
           : seconds < hour ? both(minute, " min ", 1, " s")
           : seconds < day  ? both(hour, " h ", minute, " min")
                            : both(day, " d ", hour, " h");
}

/// "214.3 KiB"
std::string SizeText(Number bytes)
{
    constexpr Number unit = 1024;
    if (bytes < unit)
    {
        return std::to_string(bytes) + " B";
    }
    const bool isLarge = bytes >= unit * unit;
    std::array<char, 64> text;
    std::snprintf(text.data(), text.size(), "%.1f %s",
                  static_cast<double>(bytes) / static_cast<double>(isLarge ? unit * unit : unit),
                  isLarge ? "MiB" : "KiB");
    return text.data();
}

bool IsUnsaved(const IniFile& answer)
{
    return NumberOf(answer, "Saves", "unsaved") != 0;
}

std::string SavesText(const IniFile& answer)
{
    std::string text = Said(answer, "Saves", "saves") + " done, " + Said(answer, "Saves", "skipped") + " not needed, " +
                       Said(answer, "Saves", "failed") + " failed; ";
    if (IsUnsaved(answer))
    {
        text += "a change is NOT SAVED";
    }
    else
    {
        text += NumberOf(answer, "Saves", "waiting") != 0 ? "changes wait for the end of the delay" : "nothing waits";
    }
    if (answer.HasValue("Saves", "running"))
    {
        text += "; one has been running for " + answer.GetValue("Saves", "running") + " s";
    }
    return text;
}

/// A page for people.
std::string StatusText(const IniFile& answer)
{
    Rows rows = {
        {"server", "version " + Said(answer, "Server", "version") + ", process " + Said(answer, "Server", "pid") +
                       ", up " + DurationText(NumberOf(answer, "Server", "uptime")) + " since " +
                       Said(answer, "Server", "started")},
        {"store", Said(answer, "Store", "groups") + " groups, " + Said(answer, "Store", "keys") + " keys, " +
                      SizeText(NumberOf(answer, "Store", "bytes")) + "; " + Said(answer, "Store", "changes") +
                      " changes"},
        {"saves", SavesText(answer)},
    };
    if (answer.HasValue("Saves", "lastFailure"))
    {
        rows.push_back({"", "last failure at " + Said(answer, "Saves", "lastFailureTime") + ": " +
                                NameToken(answer.GetValue("Saves", "lastFailure"))});
    }
    if (answer.HasValue("Saves", "log"))
    {
        rows.push_back({"", SizeText(NumberOf(answer, "Saves", "log")) + " in the log, which is folded beyond " +
                                SizeText(NumberOf(answer, "Saves", "logLimit")) +
                                "; folds so far: " + Said(answer, "Saves", "folds")});
    }
    rows.push_back({"clients", Said(answer, "Clients", "now") + " now, " + Said(answer, "Clients", "most") +
                                   " at most, " + Said(answer, "Clients", "refused") + " refused, " +
                                   Said(answer, "Clients", "dropped") + " dropped"});
    rows.push_back({"limits", Said(answer, "Limits", "maxClients") + " clients; of each " +
                                  SizeText(NumberOf(answer, "Limits", "maxBacklog")) + " of waiting notifications, " +
                                  SizeText(NumberOf(answer, "Limits", "maxMessage")) + " of one request"});
    for (const std::string& door : NumberedGroups(answer, "Door/"))
    {
        rows.push_back({"door", NameToken(Said(answer, door, "address")) + " (" + Said(answer, door, "kind") + ")"});
    }
    for (const std::string& file : NumberedGroups(answer, "File/"))
    {
        const std::string holds = answer.HasValue(file, "rules") ? Said(answer, file, "rules") + " rules"
                                                                 : Said(answer, file, "groups") + " groups, " +
                                                                       Said(answer, file, "keys") + " keys";
        rows.push_back(
            {"file", NameToken(Said(answer, file, "path")) + " (" + Said(answer, file, "kind") + "): " + holds});
    }
    return TableOf(rows);
}

/// In the order in which they came.
std::vector<ConnectedClient> ClientsIn(const IniFile& answer)
{
    std::vector<ConnectedClient> clients;
    for (const auto& [group, values] : answer)
    {
        const std::string_view name = group;
        const auto number =
            name.starts_with(ClientPrefix) ? NumberIn<Number>(name.substr(ClientPrefix.size())) : std::nullopt;
        if (number)
        {
            clients.push_back({*number, values, NumberedValues(values, SubscriptionPrefix)});
            for (std::size_t index = clients.back().subscribed.size(); index > 0; --index)
            {
                clients.back().values.erase(SubscriptionPrefix + std::to_string(index));
            }
        }
    }
    std::ranges::sort(clients, {}, &ConnectedClient::number);
    return clients;
}

std::string ValueOf(const ConnectedClient& client, const std::string& key)
{
    const std::string* const pValue = client.values.Lookup(key);
    return pValue != nullptr ? *pValue : std::string();
}

/// Programs and subscribers choose their names: those cannot drive a terminal.
std::string WhoText(const ConnectedClient& client)
{
    const std::string address = ValueOf(client, "address");
    return !address.empty() ? address
                            : NameToken(ValueOf(client, "user")) + ", pid " + ValueOf(client, "pid") + " (" +
                                  NameToken(ValueOf(client, "program")) + ")";
}

std::string SubscribedText(const ConnectedClient& client)
{
    std::string text;
    for (const std::string& name : client.subscribed)
    {
        text += (text.empty() ? "" : ", ") + NameToken(name);
    }
    const std::string more = ValueOf(client, "more");
    return more.empty() ? text : text + (text.empty() ? "" : ", ") + "and " + more + " more";
}

std::string ClientsText(const std::vector<ConnectedClient>& clients)
{
    Rows rows = {{"NUMBER", "WHO", "DOOR", "SINCE", "REQUESTS", "IN", "OUT", "WAITING", "REFUSED", "SUBSCRIBED"}};
    for (const ConnectedClient& client : clients)
    {
        const auto size = [&client](const char* key) {
            return SizeText(NumberIn<Number>(ValueOf(client, key)).value_or(0));
        };
        rows.push_back({std::to_string(client.number), WhoText(client), NameToken(ValueOf(client, "door")),
                        ValueOf(client, "since"), ValueOf(client, "requests"), size("bytesIn"), size("bytesOut"),
                        size("waiting"), ValueOf(client, "refused"), SubscribedText(client)});
    }
    return TableOf(rows);
}

/// A figure as a number, whatever else as a string: what a program calls itself may look like one.
json FigureOrText(const std::string& key, const std::string& text)
{
    constexpr std::array<std::string_view, 27> figures = {
        "bytes",   "bytesIn",       "bytesOut",   "changes",    "delay",      "dropped", "failed",
        "groups",  "keys",          "maxBacklog", "maxMessage", "maxClients", "more",    "most",
        "now",     "pid",           "refused",    "requests",   "rules",      "running", "saves",
        "skipped", "subscriptions", "uid",        "unsaved",    "uptime",     "waiting"};
    if (std::ranges::find(figures, key) != figures.end())
    {
        json number = json::parse(text, nullptr, false);
        if (number.is_number())
        {
            return number;
        }
    }
    return text;
}

json ObjectOf(const IniFile::KeyValueMap& values)
{
    json object = json::object();
    for (const auto& [key, text] : values)
    {
        object[key] = FigureOrText(key, text);
    }
    return object;
}

json ObjectOf(const IniFile& answer)
{
    json object = json::object();
    for (const auto& [group, values] : answer)
    {
        object[group] = ObjectOf(values);
    }
    return object;
}

json ArrayOf(const std::vector<ConnectedClient>& clients)
{
    json array = json::array();
    for (const ConnectedClient& client : clients)
    {
        json object = ObjectOf(client.values);
        object["number"] = client.number;
        object["subscribed"] = client.subscribed;
        array.push_back(std::move(object));
    }
    return array;
}

}  // namespace

ExitStatus RunStatus(const Invocation& invocation)
{
    const IniFile answer = Ask(invocation, control::Status);
    WriteOutput(invocation.asJson ? JsonOf(ObjectOf(answer)) : StatusText(answer));
    return IsUnsaved(answer) ? StatusNo : StatusDone;
}

ExitStatus RunClients(const Invocation& invocation)
{
    const std::vector<ConnectedClient> clients = ClientsIn(Ask(invocation, control::Clients));
    WriteOutput(invocation.asJson ? JsonOf(ArrayOf(clients)) : ClientsText(clients));
    return StatusDone;
}

ExitStatus RunSave(const Invocation& invocation)
{
    try
    {
        ControlConnection(invocation.control).Ask(control::Save);
        return StatusDone;
    }
    catch (const ControlError& error)
    {
        throw Failure(StatusNo, "the settings are not saved: " + Reason(error.what()));
    }
}

}  // namespace korlo::settings::cli
