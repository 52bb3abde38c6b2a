#pragma once
// What ends the wait of the bridge's thread.

#include <cerrno>
#include <cstdint>

#include <sys/eventfd.h>
#include <unistd.h>

#include "korlo/osa/Exception.h"

namespace korlo::settings::mqtt
{

/// A descriptor that can be read from once anybody has raised it.
///
/// Thread safety: Raise from any thread and any signal handler; the rest belongs to the thread that waits.
class WakeUp
{
public:
    /// @throws osa::Exception
    WakeUp() : _descriptor(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
    {
        if (_descriptor < 0)
        {
            throw osa::Exception("Failed to make an event: %s", osa::SystemReason(errno).c_str());
        }
    }

    WakeUp(const WakeUp&) = delete;
    WakeUp& operator=(const WakeUp&) = delete;
    ~WakeUp() { ::close(_descriptor); }

    void Raise() const
    {
        const int error = errno;  // a signal handler keeps it
        const std::uint64_t one = 1;
        [[maybe_unused]] const ssize_t ignored = ::write(_descriptor, &one, sizeof(one));
        errno = error;
    }

    /// Before looking for what it was raised for.
    void Clear() const
    {
        std::uint64_t count = 0;
        [[maybe_unused]] const ssize_t ignored = ::read(_descriptor, &count, sizeof(count));
    }

    int GetDescriptor() const { return _descriptor; }

private:
    const int _descriptor;
};

}  // namespace korlo::settings::mqtt
