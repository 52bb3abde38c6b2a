#include <charconv>
#include <cmath>
#include <string_view>

#include "Commands.h"
#include "Json.h"
#include "Operands.h"
#include "StandardStreams.h"
#include "korlo/core/StringUtil.h"
#include "settings/KorloSettingsClient.h"
#include "settings/ResourceManager.h"

namespace korlo::settings::cli
{
namespace
{

using core::IniFile;

std::string GroupOf(const std::string& resource)
{
    return "Resources/" + resource;
}

/// All that the accounting of a resource goes by; it brings in resources with longer names, too, and does no harm.
GroupNameCollection GroupsOfResource(const std::string& resource)
{
    return {GroupOf(resource) + '*'};
}

ResourceManager::ResourceUsage ParseUsage(const std::string& resource, const std::string& amount)
{
    int units = 0;
    if (core::StringUtil::TryParse(amount, units))
    {
        return {resource, false, units, 0.0};
    }
    constexpr double whole = 100;
    double percent = 0;
    const char* const pEnd = amount.data() + amount.size();
    const auto [pRest, error] = std::from_chars(amount.data(), pEnd, percent);
    if (error == std::errc() && std::string_view(pRest, pEnd) == "%" && std::isfinite(percent))
    {
        return {resource, true, 0, percent / whole};
    }
    throw Failure(StatusWrongCommandLine, Quoted(amount) + " is no amount of a resource",
                  "an amount is a whole number of units, such as 20, or a share of the total, such as 25%");
}

std::string Refusal(const ResourceManager& manager, const std::string& consumer, const std::string& resource,
                    const std::string& amount)
{
    if (!manager.IsAuthorized(consumer, resource))
    {
        return Quoted(consumer) + " is not among the allowed consumers of " + Quoted(resource);
    }
    return Quoted(consumer) + " cannot hold " + amount + " of " + Quoted(resource) + ": " +
           std::to_string(manager.GetAvailable(consumer, resource)) + " of " +
           std::to_string(manager.GetTotal(resource)) + " units are available to it";
}

/// What `resource show` prints of the consumers, in both forms.
struct Consumers
{
    std::string lines;
    nlohmann::json values = nlohmann::json::array();
};

Consumers ConsumersOf(const std::string& resource, const IniFile& settings)
{
    const std::string prefix = GroupOf(resource) + "/Consumers/";
    Consumers consumers;
    for (const auto& [group, values] : settings)
    {
        const std::string name = group.starts_with(prefix) ? group.substr(prefix.size()) : std::string();
        if (name.empty() || name.find('/') != std::string::npos)  // another group, or one below that of a consumer
        {
            continue;
        }
        const int used = settings.GetIntOrDefault(group, "CurrentlyUsed", 0);
        int max = 0;
        const bool isLimited = core::StringUtil::TryParse(settings.GetValueOrDefault(group, "MaxAllowed"), max);
        consumers.lines +=
            name + ": " + std::to_string(used) + " used" + (isLimited ? ", at most " + std::to_string(max) : "") + '\n';
        consumers.values.push_back(
            {{"name", name}, {"used", used}, {"max", isLimited ? nlohmann::json(max) : nlohmann::json()}});
    }
    return consumers;
}

}  // namespace

ExitStatus RunResourceShow(const Invocation& invocation)
{
    constexpr int defaultTotal = 100;
    const std::string& resource = invocation.operands[0];
    const IniFile settings = Session(invocation.target, Session::Reading).Read(GroupsOfResource(resource));
    const int total = settings.GetIntOrDefault(GroupOf(resource), "TotalAvailable", defaultTotal);
    const Consumers consumers = ConsumersOf(resource, settings);
    if (consumers.values.empty() && !settings.HasGroup(GroupOf(resource)))
    {
        WriteMessage("note: the settings hold nothing of resource " + Quoted(resource) + ": its total is the default");
    }
    WriteOutput(invocation.asJson ? JsonOf({{"resource", resource}, {"total", total}, {"consumers", consumers.values}})
                                  : "total: " + std::to_string(total) + '\n' + consumers.lines);
    return StatusDone;
}

ExitStatus RunResourceReserve(const Invocation& invocation)
{
    const std::string& resource = invocation.operands[0];
    const std::string& consumer = invocation.operands[1];
    const std::string& amount = invocation.operands[2];
    const ResourceManager::ResourceUsage usage = ParseUsage(resource, amount);

    const auto reserve = [&](KorloSettingsClient& client) {
        ResourceManager manager(&client);
        if (!manager.ReserveForConsumer(consumer, {usage}))
        {
            throw Failure(StatusNo, Refusal(manager, consumer, resource, amount));
        }
    };
    Session session(invocation.target, Session::Changing);
    const GroupNameCollection groups = GroupsOfResource(resource);
    // No list of the protocol carries the name, so no manager could read what the others hold.
    if (!session.CanSend(groups))
    {
        throw Failure(StatusWrongCommandLine,
                      "cannot reserve " + Quoted(resource) + " on a server: its name holds a line break",
                      "--local FILE takes every name");
    }
    session.Change(groups, reserve);
    return ReportRestricted({GroupOf(resource) + "/Consumers/" + consumer});
}

}  // namespace korlo::settings::cli
