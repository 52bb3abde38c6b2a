// Reads, changes and follows settings by the client alone.

#include <iostream>
#include <string>
#include <syncstream>

#include "ExampleSupport.h"
#include "korlo/core/IniFile.h"
#include "settings/KorloSettingsClient.h"

namespace
{

using korlo::core::IniFile;
using korlo::examples::Operands;
using korlo::examples::Termination;
using korlo::settings::GroupNameCollection;
using korlo::settings::IChangeCallback;
using korlo::settings::KorloSettingsClient;

constexpr int ForeverMs = 3'600'000;

// [callback]
class AudioChanges : public IChangeCallback
{
public:
    /// On the client's own thread, with the whole content of each group that changed. Be quick: no other change is
    /// delivered meanwhile.
    void OnChange(const GroupNameCollection&, const IniFile& settings) override
    {
        std::osyncstream(std::cout) << "volume is now " << settings.GetIntOrDefault("Audio", "volume", 0) << std::endl;
    }
};
// [end]

void ReadAndChange(KorloSettingsClient& client)
{
    // [change]
    const std::string ringtone = client.GetValue("[Audio]ringtone");  // "" when it is missing
    client.SetValue("[Audio]volume", "65");                           // the other keys of [Audio] stay

    IniFile networks;
    client.GetSettings("Network/*", networks);  // names and patterns, as many groups as match

    IniFile changes;
    changes.SetValue("Network/Wifi", "ssid", "Workshop");
    changes.SetInt("Network/Wifi", "enabled", 1);
    client.MergeSettings(changes);  // both keys at once: nobody ever sees one without the other
    // [end]
    std::osyncstream(std::cout) << "ringtone '" << ringtone << "', " << networks.size() << " networks" << std::endl;
}

// [count]
/// Adds one to a counter that other processes raise as well; no step is lost.
int CountStart(KorloSettingsClient& client)
{
    for (;;)
    {
        IniFile seen;
        client.GetSettings("Statistics", seen);
        const int starts = seen.GetIntOrDefault("Statistics", "starts", 0) + 1;
        IniFile changes;
        changes.SetInt("Statistics", "starts", starts);
        if (client.TestAndMerge(seen, changes))
        {
            return starts;
        }
        // Somebody else was faster: look again.
    }
}
// [end]

void Run(const Operands&, Termination& termination)
{
    // [subscribe]
    AudioChanges callback;
    KorloSettingsClient client(KorloSettingsClient::MultiThreaded);  // is destroyed before the callback
    client.Subscribe(&callback, "Audio");
    // [end]
    ReadAndChange(client);
    std::osyncstream(std::cout) << "start number " << CountStart(client) << std::endl;
    while (!termination.IsWanted(ForeverMs))
    {
    }
}

}  // namespace

int main(int argc, char* argv[])
{
    return korlo::examples::RunProgram({"example-first-steps", "", 0, Run}, argc, argv);
}
