// A program that mirrors groups into a document of its own.

#include <iostream>

#include "ExampleSupport.h"
#include "korlo/core/IniFile.h"
#include "settings/IniWatcher.h"
#include "settings/KorloSettingsClient.h"

namespace
{

using korlo::core::IniFile;
using korlo::examples::Operands;
using korlo::examples::Termination;
using korlo::settings::IniWatcher;
using korlo::settings::KorloSettingsClient;

constexpr int TickMs = 50;

/// Stands for a program that configures something by the document as a whole.
void Apply(const IniFile& mirror)
{
    std::cout << mirror.size() << " groups\n";
    mirror.SaveToStream(std::cout);
    std::cout << "end" << std::endl;
}

void Run(const Operands& patterns, Termination& termination)
{
    // [mirror]
    KorloSettingsClient client(KorloSettingsClient::MultiThreaded);
    client.ReportMissedChanges(true);  // also what changed while the server was away
    IniFile mirror;
    IniWatcher watcher(&client, &mirror);  // is destroyed before its document and its client
    for (const std::string& pattern : patterns)
    {
        watcher.AddPattern(pattern);  // all of them before the first Update
    }
    do
    {
        if (watcher.Update())  // no other thread touches the mirror
        {
            Apply(mirror);
        }
    } while (!termination.IsWanted(TickMs));
    // [end]
}

}  // namespace

int main(int argc, char* argv[])
{
    return korlo::examples::RunProgram({"example-mirror-groups", "NAME-OR-PATTERN...", 1, Run}, argc, argv);
}
