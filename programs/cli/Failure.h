#pragma once
// How a run of the tool ends when it cannot do what it was asked to.

#include <exception>
#include <string>
#include <string_view>

namespace korlo::settings::cli
{

/// The exit statuses of the tool; scripts rely on the numbers.
enum ExitStatus
{
    StatusDone = 0,
    StatusNo = 1,                ///< A plain "no": no such key, no group matches, other values were found.
    StatusWrongCommandLine = 2,  ///< Nothing was done.
    StatusUnusable = 3           ///< The server cannot be reached, or a file cannot be used.
};

/// Ends the run with a message and, where one helps, a hint: what the person may do about it.
///
/// Thread safety: none of its own; a thrown exception belongs to the thread that catches it.
class Failure : public std::exception
{
public:
    /// @param message says what failed and why, in one line that begins with a small letter and ends without a stop.
    /// @param hint the same, or empty.
    Failure(ExitStatus status, const std::string& message, const std::string& hint = std::string())
        : _status(status),
          _message(message),
          _hint(hint)
    {
    }

    ExitStatus GetStatus() const { return _status; }
    const std::string& GetHint() const { return _hint; }
    const char* what() const noexcept override { return _message.c_str(); }

private:
    ExitStatus _status;
    std::string _message;
    std::string _hint;
};

/// Ends the run at once and without a word: whoever read the results has gone.
///
/// Thread safety: as Failure.
class OutputClosed : public std::exception
{
};

/// The text in single quotes.
std::string Quoted(std::string_view text);

/// The text of an exception or a log message of the libraries, which begin with a capital, as the tool words its own.
std::string Reason(const std::string& text);

}  // namespace korlo::settings::cli
