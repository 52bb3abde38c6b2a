// A daemon whose variables follow its settings.

#include <iostream>
#include <string>

#include "ExampleSupport.h"
#include "settings/KorloSettingsClient.h"
#include "settings/SettingsWatcher.h"

namespace
{

using korlo::examples::Operands;
using korlo::examples::Termination;
using korlo::settings::KorloSettingsClient;
using korlo::settings::SettingsWatcher;

constexpr int TickMs = 50;

/// Stands for what a real daemon does with its hardware.
void Apply(int volume, bool echoCancel, const std::string& ringtone)
{
    std::cout << "volume " << volume << ", echo cancelling " << (echoCancel ? "on" : "off") << ", ringtone '"
              << ringtone << "'" << std::endl;
}

void Run(const Operands&, Termination& termination)
{
    // [follow]
    // In this order: the watcher is destroyed before its client and its variables.
    KorloSettingsClient client(KorloSettingsClient::MultiThreaded);
    client.ReportMissedChanges(true);  // also what changed while the server was away
    int volume = 0;
    bool echoCancel = false;
    std::string ringtone;

    SettingsWatcher watcher(&client);
    watcher.AddSetting("Audio", "volume", &volume);
    watcher.AddSetting("Audio", "echoCancel", &echoCancel);
    watcher.AddSetting("Audio", "ringtone", &ringtone);
    do
    {
        if (watcher.UpdateSettings())  // the first call always says true
        {
            Apply(volume, echoCancel, ringtone);
        }
    } while (!termination.IsWanted(TickMs));
    // [end]
}

}  // namespace

int main(int argc, char* argv[])
{
    return korlo::examples::RunProgram({"example-follow-settings", "", 0, Run}, argc, argv);
}
