#include "korlo/osa/Exception.h"

#include <system_error>

#include "FormatText.h"

namespace korlo::osa
{

Exception::Exception(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    _text = core::FormatText(format, args);
    va_end(args);
}

Exception::~Exception() = default;

const char* Exception::what() const noexcept
{
    return _text.c_str();
}

std::string SystemReason(int error)
{
    return std::generic_category().message(error);
}

LockException::LockException(const std::string& name, LockError error) : Exception("%s", name.c_str()), _error(error)
{
}

LockException::~LockException() = default;

LockException::LockError LockException::GetLockError() const noexcept
{
    return _error;
}

}  // namespace korlo::osa
