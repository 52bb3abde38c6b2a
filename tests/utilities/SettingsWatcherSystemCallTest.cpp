// An update with nothing new stays out of the kernel.

#include <cstddef>
#include <functional>

#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "settings/SettingsWatcher.h"
#include "support/StoreClients.h"

namespace korlo::settings
{
namespace
{

using Mode = KorloSettingsClient::OperationMode;

/// From here on any system call but the one that ends the process kills it.
void ForbidSystemCalls()
{
    sock_filter rules[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_exit_group, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_KILL_PROCESS),
    };
    const sock_fprog program{sizeof(rules) / sizeof(rules[0]), rules};
    if (::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 || ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) != 0)
    {
        ::_exit(2);
    }
}

/// Runs the body in a copy of this process. 0 when it made no system call, the number of a signal and 1000 when it was
/// killed for one.
int StatusWithoutSystemCalls(const std::function<void()>& body)
{
    const pid_t child = ::fork();
    if (child == 0)
    {
        ForbidSystemCalls();
        body();
        ::_exit(0);
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    constexpr int signalled = 1000;
    return WIFSIGNALED(status) ? signalled + WTERMSIG(status) : WEXITSTATUS(status);
}

class SettingsWatcherSystemCallTest : public testing::TestWithParam<Mode>
{
protected:
    SettingsWatcherSystemCallTest()
    {
        watcher.AddSetting("Audio", "volume", &volume);
        watcher.UpdateSettings();
        store.Settle();
        watcher.UpdateSettings();
    }

    StoreClients store{GetParam(), "[Audio]\nvolume=40\n"};
    int volume = 0;
    SettingsWatcher watcher{&store.Client()};
};

TEST_P(SettingsWatcherSystemCallTest, AnUpdateWithNothingNewMakesNone)
{
    EXPECT_EQ(StatusWithoutSystemCalls([this] {
                  for (int count = 0; count < 1000; ++count)
                  {
                      if (watcher.UpdateSettings() || watcher.TryUpdateSettings())
                      {
                          ::_exit(1);
                      }
                  }
              }),
              0);
}

TEST_P(SettingsWatcherSystemCallTest, OneThatWasMadeWouldBeSeen)
{
    EXPECT_EQ(StatusWithoutSystemCalls([] { ::getppid(); }), 1000 + SIGSYS);
}

INSTANTIATE_TEST_SUITE_P(Modes, SettingsWatcherSystemCallTest,
                         testing::Values(Mode::Local, Mode::LocalMultiThreaded, Mode::MultiThreaded), NameOfMode);

}  // namespace
}  // namespace korlo::settings
