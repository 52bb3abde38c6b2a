// A process whose log level and log file change while it runs.

#include <atomic>
#include <iostream>
#include <string>
#include <thread>

#include "ExampleSupport.h"
#include "korlo/core/Logger.h"
#include "settings/KorloSettingsClient.h"
#include "settings/LogManager.h"

namespace
{

using korlo::core::Logger;
using korlo::examples::Operands;
using korlo::examples::Termination;
using korlo::settings::KorloSettingsClient;
using korlo::settings::LogManager;

constexpr int TickMs = 10;

/// A thread that has something to say of its own, and ends with its owner.
class Worker
{
public:
    Worker() : _thread([this] { Work(); }) {}
    Worker(const Worker&) = delete;
    Worker& operator=(const Worker&) = delete;

    ~Worker()
    {
        _stop = true;
        _thread.join();
    }

private:
    // [log]
    void Work()
    {
        const Logger* pLogger = Logger::GetLogger("Camera");  // once: loggers live as long as the process
        for (unsigned int frame = 0; !_stop; ++frame)
        {
            pLogger->Trace("Frame %u", frame);
            std::this_thread::sleep_for(std::chrono::milliseconds(TickMs));
        }
    }
    // [end]

    std::atomic<bool> _stop = false;
    std::thread _thread;
};

void Run(const Operands& operands, Termination& termination)
{
    if (!operands.empty())
    {
        Logger::SetLogRotateFolder(operands[0]);
    }
    // [manage]
    KorloSettingsClient client(KorloSettingsClient::MultiThreaded);
    client.ReportMissedChanges(true);                      // also what changed while the server was away
    const LogManager logManager(&client, "Log/Doorbell");  // from here on the group says how the process logs
    // [end]
    std::cout << "ready" << std::endl;

    const Worker camera;
    const Logger* pLogger = Logger::GetLogger("Doorbell");
    for (unsigned int tick = 0; !termination.IsWanted(TickMs); ++tick)
    {
        pLogger->Error("Nobody hears ring %u", tick);
        pLogger->Information("Ring %u", tick);
    }
}

}  // namespace

int main(int argc, char* argv[])
{
    return korlo::examples::RunProgram({"example-log-as-told", "[LOGROTATE-FOLDER]", 0, Run}, argc, argv);
}
