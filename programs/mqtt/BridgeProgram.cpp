#include "BridgeProgram.h"

#include <atomic>
#include <csignal>
#include <exception>
#include <string>
#include <string_view>

#include <malloc.h>
#include <unistd.h>

#include "Bridge.h"
#include "BridgeConfiguration.h"
#include "BridgeOptions.h"
#include "korlo/core/Logger.h"
#include "korlo/osa/Exception.h"

namespace korlo::settings::mqtt
{
namespace
{

enum Status
{
    EndedInOrder = 0,
    Failed = 1,
    WrongConfiguration = 2
};

void Write(int descriptor, std::string_view text)
{
    [[maybe_unused]] const ssize_t ignored = ::write(descriptor, text.data(), text.size());
}

// A handler can reach nothing but a global.
std::atomic<Bridge*> bridgeToStop = nullptr;
volatile std::sig_atomic_t signalsLeft = 20;

/// Comes again every second until the process has ended: each time it ends the wait of a system call, such as that for
/// a host that does not answer. What waits for a settings server that hangs cannot be ended so; that is cut short.
extern "C" void OnEndingSignal(int)
{
    if (Bridge* const pBridge = bridgeToStop)
    {
        pBridge->Stop();
    }
    signalsLeft = signalsLeft - 1;
    if (signalsLeft <= 0)
    {
        ::_exit(EndedInOrder);
    }
    ::alarm(1);
}

sigset_t EndingSignals()
{
    sigset_t signals;
    ::sigemptyset(&signals);
    ::sigaddset(&signals, SIGTERM);
    ::sigaddset(&signals, SIGINT);
    ::sigaddset(&signals, SIGALRM);
    return signals;
}

/// They come to this thread alone, and end the system calls that it waits in.
void TakeOverSignals()
{
    struct sigaction action = {};
    action.sa_handler = OnEndingSignal;
    action.sa_mask = EndingSignals();
    ::sigaction(SIGTERM, &action, nullptr);
    ::sigaction(SIGINT, &action, nullptr);
    ::sigaction(SIGALRM, &action, nullptr);
    std::signal(SIGHUP, SIG_IGN);
    std::signal(SIGPIPE, SIG_IGN);
}

void ConfigureMemory()
{
#ifdef __GLIBC__
    constexpr int largeBytes = 128 * 1024;
    ::mallopt(M_ARENA_MAX, 1);  // the threads take turns
    ::mallopt(M_MMAP_THRESHOLD, largeBytes);
    ::mallopt(M_TRIM_THRESHOLD, largeBytes);
#endif
}

void ConfigureLogging(int level)
{
    core::Logger::SetLevel(level);
    constexpr int traces = 4;
    if (level < traces)
    {
        // That the server is away is told once, not each second.
        core::Logger::GetLogger("KorloSettings")->SetThreshold(0);
        core::Logger::GetLogger("KorloSettingsConnection")->SetThreshold(0);
    }
}

void Run(const BridgeConfiguration& configuration)
{
    TakeOverSignals();
    const sigset_t signals = EndingSignals();
    ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);  // the bridge's threads inherit it
    Bridge bridge(configuration);
    bridgeToStop = &bridge;
    ::pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
    bridge.Run();
    bridgeToStop = nullptr;
}

}  // namespace

int RunBridge(int argc, const char* const* argv)
{
    try
    {
        const BridgeOptions options = ParseOptions(argc, argv);
        BridgeConfiguration configuration;
        try
        {
            configuration = BridgeConfiguration::Read(options.configuration);
        }
        catch (const osa::Exception& exception)
        {
            throw EarlyExit(WrongConfiguration, exception.what());
        }
        ConfigureMemory();
        ConfigureLogging(options.logLevel);
        Run(configuration);
        return EndedInOrder;
    }
    catch (const EarlyExit& exit)
    {
        const bool isAnswer = exit.GetStatus() == 0;
        Write(isAnswer ? STDOUT_FILENO : STDERR_FILENO,
              isAnswer ? exit.what() : "korlo-settings-mqtt: " + std::string(exit.what()) + '\n');
        return exit.GetStatus();
    }
    catch (const std::exception& exception)
    {
        Write(STDERR_FILENO, "korlo-settings-mqtt: " + std::string(exception.what()) + '\n');
        return Failed;
    }
}

}  // namespace korlo::settings::mqtt
