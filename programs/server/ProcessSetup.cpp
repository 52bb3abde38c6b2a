#include "ProcessSetup.h"

#include <algorithm>
#include <csignal>

#include <malloc.h>
#include <sys/resource.h>

#include "korlo/core/Logger.h"

namespace korlo::daemon
{
namespace
{

sigset_t EndingSignals()
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    return signals;
}

}  // namespace

void TakeOverSignals()
{
    const sigset_t signals = EndingSignals();
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    std::signal(SIGHUP, SIG_IGN);
    std::signal(SIGPIPE, SIG_IGN);
}

void WaitForEnd()
{
    const sigset_t signals = EndingSignals();
    int signal = 0;
    while (sigwait(&signals, &signal) != 0)
    {
    }
}

void ConfigureMemory()
{
#ifdef __GLIBC__
    constexpr int largeBytes = 512 * 1024;
    mallopt(M_ARENA_MAX, 2);  // one for each thread would hold a thousand half-empty heaps
    mallopt(M_MMAP_THRESHOLD, largeBytes);
    mallopt(M_TRIM_THRESHOLD, largeBytes);
#endif
}

void AllowClients(unsigned int maxClients)
{
    constexpr rlim_t own = 64;          // for everything but clients
    constexpr rlim_t ofEachClient = 2;  // its socket, and the event that wakes its thread
    const rlim_t needed = own + ofEachClient * maxClients;
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    if (limit.rlim_cur >= needed)
    {
        return;
    }
    rlimit raised{needed, std::max(limit.rlim_max, needed)};
    if (setrlimit(RLIMIT_NOFILE, &raised) == 0)
    {
        return;
    }
    limit.rlim_cur = limit.rlim_max;  // without privileges, this far and no further
    setrlimit(RLIMIT_NOFILE, &limit);
    if (limit.rlim_max < needed)
    {
        core::Logger::GetLogger("SettingsServer")
            ->Warning("%u clients need %llu open files, %llu are allowed", maxClients,
                      static_cast<unsigned long long>(needed), static_cast<unsigned long long>(limit.rlim_max));
    }
}

}  // namespace korlo::daemon
