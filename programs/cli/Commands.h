#pragma once
// The functions behind the table of commands; Command.h says what they get and return.

#include "Command.h"

namespace korlo::settings::cli
{

// ReadCommands.cpp
ExitStatus RunGet(const Invocation& invocation);
ExitStatus RunList(const Invocation& invocation);
ExitStatus RunDump(const Invocation& invocation);
ExitStatus RunSubscribed(const Invocation& invocation);
ExitStatus RunCheck(const Invocation& invocation);

// ChangeCommands.cpp
ExitStatus RunSet(const Invocation& invocation);
ExitStatus RunMerge(const Invocation& invocation);
ExitStatus RunTestAndMerge(const Invocation& invocation);
ExitStatus RunOverwrite(const Invocation& invocation);
ExitStatus RunErase(const Invocation& invocation);
ExitStatus RunRestore(const Invocation& invocation);

// WatchCommand.cpp
ExitStatus RunWatch(const Invocation& invocation);

// LogCommand.cpp
ExitStatus RunLog(const Invocation& invocation);

// ResourceCommands.cpp
ExitStatus RunResourceShow(const Invocation& invocation);
ExitStatus RunResourceReserve(const Invocation& invocation);

// StatusCommands.cpp
ExitStatus RunStatus(const Invocation& invocation);
ExitStatus RunClients(const Invocation& invocation);
ExitStatus RunSave(const Invocation& invocation);

// AccessCommands.cpp
ExitStatus RunAccessCheck(const Invocation& invocation);
ExitStatus RunAccessReload(const Invocation& invocation);

// ExplainCommand.cpp, DiffCommand.cpp
ExitStatus RunExplain(const Invocation& invocation);
ExitStatus RunDiff(const Invocation& invocation);

// CompleteCommand.cpp: what the files in completions/ call when TAB is pressed, and hence in no help
ExitStatus RunComplete(const Invocation& invocation);

}  // namespace korlo::settings::cli
