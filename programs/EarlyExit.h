#pragma once
// How a program ends before it has begun.

#include <exception>
#include <string>

namespace korlo
{

/// The exit status for a command line that makes no sense.
constexpr int WrongCommandLine = 2;

/// Ends the program before it has begun: a wrong command line or configuration, or a question that is answered.
///
/// Thread safety: as std::exception.
class EarlyExit : public std::exception
{
public:
    EarlyExit(int status, const std::string& text) : _status(status), _text(text) {}

    int GetStatus() const { return _status; }
    const char* what() const noexcept override { return _text.c_str(); }

private:
    int _status;
    std::string _text;
};

}  // namespace korlo
