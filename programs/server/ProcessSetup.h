#pragma once
// What the server asks of its process before it starts any thread.

namespace korlo::daemon
{

/// Lets SIGTERM and SIGINT wait for WaitForEnd in this thread and in all that it starts; SIGHUP and SIGPIPE do nothing.
void TakeOverSignals();

/// Returns when SIGTERM or SIGINT has arrived.
void WaitForEnd();

/// Keeps the memory that many threads share small: few heaps, and what is free goes back to the system.
void ConfigureMemory();

/// Allows as many open files as so many clients need. Where the system refuses, that is a warning, and fewer clients
/// have to do: what the server needs itself, to save above all, is kept back. Before anything is opened.
/// @return how many clients may be let in.
/// @throws osa::Exception when there is not enough for one.
unsigned int AllowClients(unsigned int maxClients);

}  // namespace korlo::daemon
