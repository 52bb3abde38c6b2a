#pragma once
// Calls of an IFileSystem that must succeed.

#include <cerrno>
#include <string>

#include "korlo/osa/Exception.h"

namespace korlo::daemon
{

/// Repeats a call while it is interrupted.
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

/// The same.
/// @param operation what the call is for, as "write to".
/// @throws osa::Exception naming the path and the reason.
template <typename Call>
void Demand(const char* operation, const std::string& path, Call call)
{
    if (const int error = Uninterrupted(call); error != 0)
    {
        throw osa::Exception("Failed to %s '%s': %s", operation, path.c_str(), osa::SystemReason(error).c_str());
    }
}

}  // namespace korlo::daemon
