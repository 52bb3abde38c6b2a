// A process that takes its share of several resources, all or nothing.

#include <iostream>
#include <list>
#include <string>

#include "ExampleSupport.h"
#include "settings/KorloSettingsClient.h"
#include "settings/ResourceManager.h"

namespace
{

using korlo::examples::Operands;
using korlo::examples::Termination;
using korlo::settings::KorloSettingsClient;
using korlo::settings::ResourceManager;

void Show(const ResourceManager& manager, const std::string& consumer)
{
    for (const char* resource : {"Processor", "Uplink"})
    {
        std::cout << resource << ": " << manager.GetUsed(consumer, resource) << " held, "
                  << manager.GetAvailable(consumer, resource) << " of " << manager.GetTotal(resource) << " can be had"
                  << std::endl;
    }
}

void Run(const Operands& operands, Termination&)
{
    const std::string& consumer = operands[0];
    // [together]
    KorloSettingsClient client(KorloSettingsClient::SingleThreaded);
    ResourceManager manager(&client);
    std::list<ResourceManager::ResourceUsage> call;
    call.push_back({.resource = "Processor", .isPercent = true, .units = 0, .fraction = 0.25});
    call.push_back({.resource = "Uplink", .isPercent = false, .units = 20, .fraction = 0});
    const bool reserved = manager.ReserveForConsumer(consumer, call);
    // [end]
    std::cout << (reserved ? "both reserved" : "refused, and nothing changed") << std::endl;
    // [refresh]
    manager.Refresh();  // the figures are those of the last reading until then
    Show(manager, consumer);
    // [end]
    manager.ReserveResource(consumer, "Processor", 0);
    manager.ReserveResource(consumer, "Uplink", 0);
}

}  // namespace

int main(int argc, char* argv[])
{
    return korlo::examples::RunProgram({"example-reserve-together", "CONSUMER", 1, Run}, argc, argv);
}
