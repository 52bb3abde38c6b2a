#include "ProcessSetup.h"

#include <algorithm>
#include <csignal>

#include <fcntl.h>
#include <malloc.h>
#include <sys/resource.h>

#include "korlo/core/Logger.h"
#include "korlo/osa/Exception.h"

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

rlim_t CountOpenFiles()
{
    constexpr int highest = 1024;  // what a process inherits is numbered from below
    rlim_t count = 0;
    for (int descriptor = 0; descriptor < highest; ++descriptor)
    {
        count += ::fcntl(descriptor, F_GETFD) >= 0 ? 1 : 0;
    }
    return count;
}

/// How many open files are allowed, once so many were asked for.
rlim_t RaiseOpenFiles(rlim_t needed)
{
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    if (limit.rlim_cur >= needed)
    {
        return limit.rlim_cur;
    }
    const rlimit raised{needed, std::max(limit.rlim_max, needed)};
    if (setrlimit(RLIMIT_NOFILE, &raised) == 0)
    {
        return needed;
    }
    limit.rlim_cur = limit.rlim_max;  // without privileges, this far and no further
    setrlimit(RLIMIT_NOFILE, &limit);
    return limit.rlim_cur;
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

unsigned int AllowClients(unsigned int maxClients)
{
    constexpr rlim_t keptBack = 24;     // for doors, saves, the files of a restore, and clients on their way in or out
    constexpr rlim_t ofEachClient = 2;  // its socket, and an event once its responses had to wait
    const rlim_t own = CountOpenFiles() + keptBack;
    const rlim_t needed = own + ofEachClient * maxClients;
    const rlim_t allowed = RaiseOpenFiles(needed);
    if (allowed >= needed)
    {
        return maxClients;
    }
    if (allowed < own + ofEachClient)
    {
        throw osa::Exception("%llu open files are allowed, the server and one client need %llu: raise the limit",
                             static_cast<unsigned long long>(allowed),
                             static_cast<unsigned long long>(own + ofEachClient));
    }
    const auto clients = static_cast<unsigned int>((allowed - own) / ofEachClient);
    core::Logger::GetLogger("SettingsServer")
        ->Warning("%u clients need %llu open files, %llu are allowed: more than %u are refused", maxClients,
                  static_cast<unsigned long long>(needed), static_cast<unsigned long long>(allowed), clients);
    return clients;
}

}  // namespace korlo::daemon
