#pragma once
// Calls of an IFileSystem, which answer with 0 or an error number, and must succeed.

#include <cerrno>
#include <string>

#include "korlo/osa/Exception.h"

namespace korlo::osa
{

/// Repeats a call while it is interrupted (EINTR).
/// @param call returns 0 or an error number.
/// @return what the last call has returned.
template <typename Call>
int Uninterrupted(Call call)
{
    int error;
    do
    {
        error = call();
    } while (error == EINTR);
    return error;
}

/// Says that a call has failed.
/// @param operation what the call was for, as "write to".
/// @throws Exception always, naming the path and the reason.
[[noreturn]] inline void FailOn(const char* operation, const std::string& path, int error)
{
    throw Exception("Failed to %s '%s': %s", operation, path.c_str(), SystemReason(error).c_str());
}

/// Repeats a call while it is interrupted, and lets nothing else stand in its way.
/// @param operation what the call is for, as "write to".
/// @param call returns 0 or an error number.
/// @throws Exception naming the path and the reason.
template <typename Call>
void Demand(const char* operation, const std::string& path, Call call)
{
    if (const int error = Uninterrupted(call); error != 0)
    {
        FailOn(operation, path, error);
    }
}

}  // namespace korlo::osa
