#include "Tool.h"

#include <new>
#include <variant>

#include "CommandLine.h"
#include "LogMessages.h"
#include "StandardStreams.h"

namespace korlo::settings::cli
{
namespace
{

ExitStatus Run(const std::vector<std::string>& arguments)
{
    LogAsMessages();
    const auto parsed = ParseCommandLine(arguments);
    if (const auto* pInformation = std::get_if<Information>(&parsed))
    {
        WriteOutput(pInformation->text);
        return StatusDone;
    }
    const auto& run = std::get<CommandRun>(parsed);
    return run.pCommand->pRun(run.invocation);
}

}  // namespace

ExitStatus RunTool(const std::vector<std::string>& arguments)
{
    try
    {
        return Run(arguments);
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

}  // namespace korlo::settings::cli
