#pragma once
// The word of the control door that tells who is connected.

#include <string>

#include "SettingsServer.h"
#include "control/IControlWord.h"

namespace korlo::daemon
{

/// "clients": a group for each client, with who it is and what it costs; never a value. Each client is looked at by
/// itself, so that nobody is held up by a question about a thousand of them.
///
/// Thread safety: as IControlWord.
class ClientsWord : public AnsweredWord
{
public:
    /// @param server borrowed.
    explicit ClientsWord(const SettingsServer& server) : _server(server) {}

    core::IniFile Answer(const std::string& operands) override;

private:
    const SettingsServer& _server;
};

}  // namespace korlo::daemon
