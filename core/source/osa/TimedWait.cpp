#include "osa/TimedWait.h"

#include "korlo/osa/Exception.h"

namespace korlo::osa
{

void ThrowLockTimeout(const char* kind, const std::string& name, unsigned int timeoutMs)
{
    const std::string text =
        std::string("Failed to lock ") + kind + " '" + name + "' within " + std::to_string(timeoutMs) + " ms";
    throw LockException(text, LockException::Timeout);
}

}  // namespace korlo::osa
