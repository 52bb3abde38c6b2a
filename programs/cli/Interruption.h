#pragma once
// Waiting that SIGINT, SIGTERM or another thread can end.

namespace korlo::settings::cli
{

/// Turns SIGINT and SIGTERM into an event to wait for, for as long as the process lives, even where they were ignored:
/// a shell starts its background jobs so, and they are to be ended by a signal all the same. One object a process.
///
/// Thread safety: Raise from any thread and any signal handler; Wait from one thread.
class Interruption
{
public:
    enum Event
    {
        InputReady,
        Interrupted
    };

    static constexpr int NoInput = -1;

    /// @throws Failure.
    Interruption();
    Interruption(const Interruption&) = delete;
    Interruption& operator=(const Interruption&) = delete;
    ~Interruption() = default;

    /// Ends the present Wait and every later one.
    void Raise() const;

    /// Waits for an interruption, or for something to read (the end, too) at the descriptor, unless that is NoInput.
    /// An interruption comes first.
    Event Wait(int input) const;

private:
    int _reader = -1;
};

}  // namespace korlo::settings::cli
