#pragma once
// What the examples share: the command line, and ending in order on a signal.

#include <csignal>
#include <string>
#include <vector>

namespace korlo::examples
{

/// Takes SIGTERM and SIGINT as a wish to end, without a handler: they are blocked in every thread and asked for here.
///
/// Thread safety: one thread. Threads that were started before it may still be ended by the signals.
class Termination
{
public:
    Termination();
    Termination(const Termination&) = delete;
    Termination& operator=(const Termination&) = delete;
    ~Termination() = default;

    /// True as soon as a signal has come, and ever after; false when none came within that time.
    bool IsWanted(int withinMs);

private:
    sigset_t _signals;
    bool _wanted = false;
};

using Operands = std::vector<std::string>;

/// A program without its main: `Run` does the work.
struct Program
{
    const char* name;
    const char* operands;  ///< as the usage line shows them
    std::size_t fewest;    ///< operands that there must be
    void (*Run)(const Operands& operands, Termination& termination);
};

/// Runs the program with `[--server HOST:PORT] OPERAND...` and returns its exit status: 0 when it ended in order, 1
/// when it failed and 2 when the command line was wrong, with a message on standard error. Without `--server` the
/// client looks for the server where the system's services database says, else at 127.0.0.1:4711.
int RunProgram(const Program& program, int argc, char* argv[]);

}  // namespace korlo::examples
