// korlo-settings: reads, changes and watches settings from the command line.

#include <csignal>
#include <memory>
#include <new>
#include <string>
#include <variant>
#include <vector>

#include "CommandLine.h"
#include "Failure.h"
#include "StandardStreams.h"
#include "korlo/core/Logger.h"

namespace korlo::settings::cli
{
namespace
{

using core::Logger;

/// Writes what the libraries log to standard error, but not a message that only repeats the one before.
///
/// Thread safety: as ILogAppender says.
class MessageAppender : public core::ILogAppender
{
public:
    void Append(const Logger&, core::LogLevel, const std::string& message) override
    {
        if (message != _last)
        {
            _last = message;
            WriteMessage(Reason(message));
        }
    }

private:
    std::string _last;
};

/// Runs what the arguments (without the name of the program) ask for. Results go to standard output; whatever goes
/// wrong becomes a message on standard error and a status.
ExitStatus RunTool(const std::vector<std::string>& arguments)
{
    try
    {
        Logger::ClearAppenders();
        Logger::AddAppender(std::make_shared<MessageAppender>());
        const auto parsed = ParseCommandLine(arguments);
        if (const auto* pRun = std::get_if<CommandRun>(&parsed))
        {
            return pRun->pCommand->pRun(pRun->invocation);
        }
        WriteOutput(std::get<Information>(parsed).text);
        return StatusDone;
    }
    catch (const OutputClosed&)
    {
        return StatusDone;
    }
    catch (const Failure& failure)
    {
        WriteMessage(failure.what());
        if (!failure.GetHint().empty())
        {
            WriteMessage("hint: " + failure.GetHint());
        }
        return failure.GetStatus();
    }
    catch (const std::bad_alloc&)
    {
        WriteMessage("failed to finish: out of memory");
    }
    catch (const std::exception& error)
    {
        WriteMessage("failed to finish: " + Reason(error.what()));
    }
    return StatusUnusable;
}

}  // namespace
}  // namespace korlo::settings::cli

int main(int argc, char* argv[])
{
    using namespace korlo::settings::cli;
    HoldStandardDescriptors();
    std::signal(SIGPIPE, SIG_IGN);  // a reader who goes away shows as an error of the write
    return RunTool(std::vector<std::string>(argv + (argc > 0 ? 1 : 0), argv + argc));
}
