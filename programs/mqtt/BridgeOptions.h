#pragma once
// The command line of the bridge.

#include <exception>
#include <string>

namespace korlo::settings::mqtt
{

/// What the command line says.
///
/// Thread safety: none of its own; the owner guards it.
struct BridgeOptions
{
    std::string configuration;  ///< the path of the file
    int logLevel = 3;
};

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

/// Reads the command line.
/// @throws EarlyExit with status 2 and one line for a wrong one; with status 0 and the text that --help or --version
///         asks for.
BridgeOptions ParseOptions(int argc, const char* const* argv);

}  // namespace korlo::settings::mqtt
