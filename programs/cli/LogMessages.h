#pragma once
// What the libraries log, as messages of the tool.

namespace korlo::settings::cli
{

/// Writes what is logged to standard error from now on, but not a message that only repeats the one before.
void LogAsMessages();

/// The same, for a client that is connected and only hears of changes from now on: of all that the client says, this
/// tells only that the connection is lost, and that there is one again.
void LogReconnections();

}  // namespace korlo::settings::cli
