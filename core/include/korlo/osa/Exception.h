#pragma once
// The exceptions of the whole system.

#include <cstdarg>
#include <exception>
#include <string>

namespace korlo::osa
{

/// What every operation throws for what should not happen. Its text is one line that says what failed and names
/// the offending value in single quotes.
///
///     throw osa::Exception("Failed to open '%s': %s", path.c_str(), reason.c_str());
///
/// Thread safety: none of its own; a thrown exception belongs to the thread that catches it.
class Exception : public std::exception
{
public:
    /// Formats the text in the manner of printf. The format must not be null.
    __attribute__((format(printf, 2, 3))) explicit Exception(const char* format, ...);
    Exception(const Exception&) = default;
    Exception(Exception&&) = default;
    Exception& operator=(const Exception&) = default;
    Exception& operator=(Exception&&) = default;
    ~Exception() override;

    /// The formatted text; valid as long as the exception is.
    const char* what() const noexcept override;

private:
    std::string _text;
};

/// A lock, a semaphore or a queue could not be taken in the time that the caller allowed.
///
/// Thread safety: as Exception.
class LockException : public Exception
{
public:
    /// Why not.
    enum LockError
    {
        Timeout = 1,   ///< The time was up.
        NotHeld = 2,   ///< A release by somebody who does not hold the lock.
        Exhausted = 3  ///< The lock cannot be taken any more times.
    };

    /// @param name becomes the text of the exception as it stands; it is no format.
    LockException(const std::string& name, LockError error);
    ~LockException() override;

    /// Why not.
    LockError GetLockError() const noexcept;

private:
    LockError _error;
};

/// What the system says of an error number of <cerrno>.
std::string SystemReason(int error);

/// The pointer, when it is one.
/// @throws Exception "WHAT was NULL".
template <typename T>
T* NotNull(T* pointer, const char* what)
{
    if (pointer == nullptr)
    {
        throw Exception("%s was NULL", what);
    }
    return pointer;
}

}  // namespace korlo::osa
