#include "Interruption.h"

#include <array>
#include <cerrno>
#include <csignal>

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include "Failure.h"
#include "korlo/osa/Exception.h"

namespace korlo::settings::cli
{
namespace
{

// The writing end of a pipe that nobody ever reads from; a handler can reach nothing but a global. Both ends stay open
// until the process ends, because a signal may come until then.
volatile std::sig_atomic_t writerOfInterruption = -1;

extern "C" void OnSignal(int)
{
    const int error = errno;
    [[maybe_unused]] const ssize_t ignored = ::write(writerOfInterruption, "", 1);
    errno = error;
}

}  // namespace

Interruption::Interruption()
{
    std::array<int, 2> ends;
    if (::pipe2(ends.data(), O_CLOEXEC | O_NONBLOCK) != 0)  // one that is full is as good as raised
    {
        throw Failure(StatusUnusable, "failed to make a pipe: " + osa::SystemReason(errno));
    }
    _reader = ends[0];
    writerOfInterruption = ends[1];

    struct sigaction action = {};
    action.sa_handler = OnSignal;
    action.sa_flags = SA_RESTART;
    ::sigaction(SIGINT, &action, nullptr);
    ::sigaction(SIGTERM, &action, nullptr);
}

void Interruption::Raise() const
{
    OnSignal(0);
}

Interruption::Event Interruption::Wait(int input) const
{
    for (;;)
    {
        // A negative descriptor is left out.
        std::array<pollfd, 2> polled{pollfd{_reader, POLLIN, 0}, pollfd{input, POLLIN, 0}};
        if (::poll(polled.data(), polled.size(), -1) <= 0)
        {
            continue;
        }
        if (polled[0].revents != 0)
        {
            return Interrupted;
        }
        if (polled[1].revents != 0)
        {
            return InputReady;
        }
    }
}

}  // namespace korlo::settings::cli
