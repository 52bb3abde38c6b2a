// A process that takes part in the accounting of resources, for the tests that need several.
//
//   resource_consumer PORT CONSUMER hold RESOURCE UNITS      reserves, says "holding" and holds until it is ended
//   resource_consumer PORT CONSUMER times COUNT RESOURCE...  reserves and releases so often
//   resource_consumer PORT CONSUMER for MS RESOURCE...       the same for so many milliseconds
//
// What reserves and releases says "granted N refused M" at the end, when it holds nothing any more.

#include <chrono>
#include <cstdlib>
#include <exception>
#include <functional>
#include <iostream>
#include <list>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include <unistd.h>

#include "korlo/osa/ServiceDirectory.h"
#include "settings/KorloSettingsClient.h"
#include "settings/ResourceManager.h"

namespace korlo::settings
{
namespace
{

using Usages = std::list<ResourceManager::ResourceUsage>;
using Words = std::vector<std::string>;

/// Reserves and releases units at random.
///
/// Thread safety: none of its own; the owner guards it.
class Contender
{
public:
    Contender(KorloSettingsClient& client, const std::string& consumer, const Words& resources)
        : _manager(&client),
          _consumer(consumer),
          _resources(resources),
          _random(std::hash<std::string>()(consumer))
    {
    }

    /// One reservation, of one resource or of all, and one release of everything.
    void Cycle()
    {
        _manager.Refresh();
        const bool isGranted = _manager.ReserveForConsumer(_consumer, SomeUsages());
        ++(isGranted ? _granted : _refused);
        Release();
    }

    void Report() const { std::cout << "granted " << _granted << " refused " << _refused << std::endl; }

private:
    int UpTo(int most) { return std::uniform_int_distribution<int>(0, most)(_random); }

    Usages SomeUsages()
    {
        const bool isAll = UpTo(1) == 1;
        const std::size_t chosen = static_cast<std::size_t>(UpTo(static_cast<int>(_resources.size()) - 1));
        Usages usages;
        for (std::size_t number = 0; number < _resources.size(); ++number)
        {
            if (isAll || number == chosen)
            {
                const std::string& resource = _resources[number];
                usages.push_back({resource, false, 1 + UpTo(_manager.GetTotal(resource) / 2), 0.0});
            }
        }
        return usages;
    }

    void Release()
    {
        Usages nothing;
        for (const std::string& resource : _resources)
        {
            nothing.push_back({resource, false, 0, 0.0});
        }
        _manager.Refresh();
        if (!_manager.ReserveForConsumer(_consumer, nothing))
        {
            throw std::runtime_error("The others hold more than the total");
        }
    }

    ResourceManager _manager;
    const std::string _consumer;
    const Words _resources;
    std::mt19937_64 _random;
    int _granted = 0;
    int _refused = 0;
};

void Hold(KorloSettingsClient& client, const std::string& consumer, const std::string& resource, int units)
{
    ResourceManager manager(&client);
    if (!manager.ReserveResource(consumer, resource, units))
    {
        throw std::runtime_error("The reservation was refused");
    }
    std::cout << "holding" << std::endl;
    for (;;)
    {
        ::pause();
    }
}

void Run(const Words& words)
{
    osa::ServiceDirectory::Register("korlo-settings-server", "127.0.0.1",
                                    static_cast<unsigned short>(std::stoi(words.at(0))));
    KorloSettingsClient client(KorloSettingsClient::SingleThreaded);
    const std::string& consumer = words.at(1);
    const std::string& command = words.at(2);
    if (command == "hold")
    {
        Hold(client, consumer, words.at(3), std::stoi(words.at(4)));
    }
    const long amount = std::stol(words.at(3));
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(amount);
    Contender contender(client, consumer, Words(words.begin() + 4, words.end()));
    for (long cycles = 0; command == "times" ? cycles < amount : std::chrono::steady_clock::now() < end; ++cycles)
    {
        contender.Cycle();
    }
    contender.Report();
}

}  // namespace
}  // namespace korlo::settings

int main(int argc, char* argv[])
{
    try
    {
        korlo::settings::Run(std::vector<std::string>(argv + 1, argv + argc));
        return EXIT_SUCCESS;
    }
    catch (const std::exception& error)
    {
        std::cerr << error.what() << std::endl;
        return EXIT_FAILURE;
    }
}
