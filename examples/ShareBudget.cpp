// A process that shares a budget of units with others: run it several times, with a consumer for each.

#include <iostream>
#include <stdexcept>
#include <string>

#include "ExampleSupport.h"
#include "korlo/core/StringUtil.h"
#include "settings/KorloSettingsClient.h"
#include "settings/ResourceReserver.h"

namespace
{

using korlo::examples::Operands;
using korlo::examples::Termination;
using korlo::settings::KorloSettingsClient;
using korlo::settings::ResourceReserver;

constexpr int RetryMs = 100;
constexpr int ForeverMs = 3'600'000;

int ParseUnits(const std::string& text)
{
    int units = 0;
    if (!korlo::core::StringUtil::TryParse(text, units) || units < 0)
    {
        throw std::invalid_argument("UNITS is a number such as 40, not '" + text + "'");
    }
    return units;
}

/// True once the units are held, false when the program is to end before.
bool WaitForUnits(ResourceReserver& uplink, int units, Termination& termination)
{
    // [wait]
    // The holding is set, not added to: what an earlier run left behind when it was killed is taken over.
    while (!uplink.TrySetUsage(units))
    {
        std::cout << "waiting: " << uplink.GetAvailableResources() << " of " << uplink.GetTotalResources()
                  << " units can be had" << std::endl;
        if (termination.IsWanted(RetryMs))
        {
            return false;
        }
    }
    return true;
    // [end]
}

void Run(const Operands& operands, Termination& termination)
{
    const std::string& consumer = operands[0];
    const int units = ParseUnits(operands[1]);
    // [reserve]
    KorloSettingsClient client(KorloSettingsClient::SingleThreaded);  // no callbacks needed, so no thread either
    ResourceReserver uplink(&client, "Uplink", consumer);
    if (!uplink.IsAuthorized())
    {
        throw std::runtime_error("'" + consumer + "' is not among the allowed consumers of the uplink");
    }
    // [end]
    if (!WaitForUnits(uplink, units, termination))
    {
        return;
    }
    std::cout << consumer << " holds " << uplink.GetCurrentUsage() << " of " << uplink.GetTotalResources() << " units"
              << std::endl;
    while (!termination.IsWanted(ForeverMs))
    {
    }
    // [release]
    if (!uplink.TrySetUsage(0))  // nothing is given back by itself
    {
        std::cerr << "The others hold more than there is; mend the settings of the uplink" << std::endl;
    }
    // [end]
}

}  // namespace

int main(int argc, char* argv[])
{
    return korlo::examples::RunProgram({"example-share-budget", "CONSUMER UNITS", 2, Run}, argc, argv);
}
