#include "control/ClientsWord.h"

#include <cstddef>
#include <optional>

#include "ControlProtocol.h"
#include "control/UtcTime.h"

namespace korlo::daemon
{
namespace
{

void AddIdentity(const ClientReport& report, core::IniFile::KeyValueMap& values)
{
    if (!report.address.empty())
    {
        values["address"] = report.address;
        return;
    }
    values["user"] = report.arrival.user;
    values["pid"] = std::to_string(report.process);
    values["program"] = report.program;
    if (report.userId)
    {
        values["uid"] = std::to_string(*report.userId);
    }
}

void AddSubscriptions(const ClientReport& report, core::IniFile::KeyValueMap& values)
{
    const std::size_t listed = report.subscribed.size();
    values["subscriptions"] = std::to_string(report.subscriptions);
    for (std::size_t index = 0; index < listed; ++index)
    {
        values["subscription." + std::to_string(index + 1)] = report.subscribed[index];
    }
    if (report.subscriptions > listed)
    {
        values["more"] = std::to_string(report.subscriptions - listed);
    }
}

void Add(const ClientReport& report, core::IniFile& answer)
{
    core::IniFile::KeyValueMap& values = answer["Client/" + std::to_string(report.arrival.number)];
    AddIdentity(report, values);
    values["door"] = report.arrival.door;
    values["since"] = UtcText(report.since);
    values["requests"] = std::to_string(report.requests);
    values["bytesIn"] = std::to_string(report.receivedBytes);
    values["bytesOut"] = std::to_string(report.sentBytes);
    values["waiting"] = std::to_string(report.waitingBytes);
    values["refused"] = std::to_string(report.refusedChanges);
    AddSubscriptions(report, values);
}

}  // namespace

core::IniFile ClientsWord::Answer(const std::string& operands)
{
    CheckStandsAlone(control::Clients, operands);
    core::IniFile answer;
    std::uint64_t number = 0;
    while (const std::optional<ClientReport> report = _server.GetNextClient(number))
    {
        Add(*report, answer);
        number = report->arrival.number;
    }
    return answer;
}

}  // namespace korlo::daemon
