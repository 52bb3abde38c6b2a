#include <csignal>

#include <sys/time.h>
#include <unistd.h>

#include "Commands.h"
#include "Completion.h"
#include "StandardStreams.h"
#include "korlo/core/Logger.h"

namespace korlo::settings::cli
{
namespace
{

/// Ends the process, without a word and with status 0, when the time is up, whatever it waits for then: a server that
/// is slow or hangs, the resolver, a file behind a network. Whoever pressed TAB waits for it.
///
/// Thread safety: none of its own; one object a process.
class TimeLimit
{
public:
    explicit TimeLimit(unsigned long milliseconds)
    {
        std::signal(SIGALRM, [](int) { ::_exit(StatusDone); });
        Set(milliseconds);
    }
    TimeLimit(const TimeLimit&) = delete;
    TimeLimit& operator=(const TimeLimit&) = delete;
    ~TimeLimit() { Set(0); }

private:
    static void Set(unsigned long milliseconds)
    {
        itimerval timer{};
        timer.it_value.tv_sec = static_cast<time_t>(milliseconds / 1000);
        timer.it_value.tv_usec = static_cast<suseconds_t>(milliseconds % 1000 * 1000);
        ::setitimer(ITIMER_REAL, &timer, nullptr);
    }
};

Completion CompleteInTime(const Invocation& invocation)
{
    const TimeLimit limit(invocation.withinMs);
    return Complete(invocation.operands);
}

/// A line each; what a line cannot carry is left out.
std::string LinesOf(const Completion& completion)
{
    std::string lines;
    for (const std::string& candidate : completion.candidates)
    {
        if (candidate.find('\n') == std::string::npos)
        {
            lines += candidate + '\n';
        }
    }
    return lines;
}

/// For a shell.
std::string RecordsOf(const Completion& completion)
{
    std::string records = completion.isFile ? "files" : "words";
    records += '\0';
    for (const std::string& candidate : completion.candidates)
    {
        records += candidate + '\0';
    }
    return records;
}

}  // namespace

/// Writes nothing before the time can no longer run out: half a name would be taken for a whole one.
ExitStatus RunComplete(const Invocation& invocation)
{
    core::Logger::ClearAppenders();  // a message would stand in the middle of the line that is being typed
    try
    {
        const Completion completion = CompleteInTime(invocation);
        WriteOutput(invocation.endWithZero ? RecordsOf(completion) : LinesOf(completion));
    }
    catch (const std::exception&)
    {
        // Nothing is offered then.
    }
    return StatusDone;
}

}  // namespace korlo::settings::cli
