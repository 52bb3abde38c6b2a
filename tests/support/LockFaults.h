#pragma once
// What a lock says that it cannot do, for tests.

#include <string>
#include <utility>

#include "korlo/osa/Exception.h"

namespace korlo::osa
{

/// The text and the error of a LockException.
using Caught = std::pair<std::string, int>;

/// Those of the LockException that `function` throws; no text and 0 where it throws none.
template <typename Function>
Caught CaughtFrom(Function function)
{
    try
    {
        function();
    }
    catch (const LockException& exception)
    {
        return {exception.what(), exception.GetLockError()};
    }
    return {};
}

}  // namespace korlo::osa
