#pragma once
// One request of the settings protocol as an object.

#include <istream>
#include <ostream>
#include <string>

namespace korlo::settings::client
{

/// Writes a request and reads its response. A command is used once. What it points to belongs to the caller and must
/// live until the command has completed. Errors of the streams show in the streams' states.
///
/// Thread safety: none of its own; it belongs to one thread at a time.
class RemoteCommand
{
public:
    RemoteCommand(const RemoteCommand&) = delete;
    RemoteCommand& operator=(const RemoteCommand&) = delete;
    virtual ~RemoteCommand() = default;

    /// Writes the whole request and flushes.
    virtual void SendRequest(std::ostream& out) = 0;

    /// Reads what follows the line that begins with the response keyword; says how the request came out.
    virtual bool HandleResponse(std::istream&) { return true; }

    /// The first word of the response; empty for a command that has none.
    const std::string& GetResponseKeyword() const { return _responseKeyword; }

protected:
    explicit RemoteCommand(const char* responseKeyword) : _responseKeyword(responseKeyword) {}

private:
    std::string _responseKeyword;
};

}  // namespace korlo::settings::client
