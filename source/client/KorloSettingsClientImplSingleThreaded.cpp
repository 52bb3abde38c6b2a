#include "client/KorloSettingsClientImplSingleThreaded.h"

#include <string>
#include <utility>

#include "common/Protocol.h"
#include "korlo/osa/Exception.h"

namespace korlo::settings::client
{
namespace
{

constexpr int Attempts = 5;
constexpr int ConnectionAttempts = 5;

}  // namespace

KorloSettingsClientImplSingleThreaded::KorloSettingsClientImplSingleThreaded(KorloSettingsConnection* pConnection)
    : KorloSettingsClientImplSingleThreaded(std::unique_ptr<KorloSettingsConnection>(pConnection))
{
}

KorloSettingsClientImplSingleThreaded::KorloSettingsClientImplSingleThreaded(
    std::unique_ptr<KorloSettingsConnection> pConnection)
    : KorloSettingsClientImplBlocking(pConnection->KeepsTransport()),
      _pClientLogger(core::Logger::GetLogger("KorloSettingsClient")),
      _commandMutex(nullptr),
      _pConnection(std::move(pConnection))
{
}

void KorloSettingsClientImplSingleThreaded::RunCommand(const char*, RemoteCommand& command) const
{
    const osa::MutexAutoLock lock(&_commandMutex);
    for (int attempt = 0; attempt < Attempts; ++attempt)
    {
        try
        {
            if (Attempt(command))
            {
                return;
            }
        }
        catch (const osa::Exception& exception)
        {
            _pClientLogger->Error("%s", exception.what());
        }
    }
    NoteConnection(false);
    throw osa::Exception("Failed to connect to korlo-settings-server");
}

bool KorloSettingsClientImplSingleThreaded::Attempt(RemoteCommand& command) const
{
    _pConnection->EnsureConnection(ConnectionAttempts);
    NoteConnection(true);
    command.SendRequest(*_pConnection->GetOstream());
    if (!_pConnection->IsReady())
    {
        return false;
    }
    return command.GetResponseKeyword().empty() || AwaitResponse(command);
}

bool KorloSettingsClientImplSingleThreaded::AwaitResponse(RemoteCommand& command) const
{
    std::istream& in = *_pConnection->GetIstream();
    for (std::string line; std::getline(in, line);)
    {
        if (common::FirstWord(line) == command.GetResponseKeyword())
        {
            command.HandleResponse(in);
            return in.good();  // else the connection was lost inside the response, which is none then
        }
    }
    return false;
}

}  // namespace korlo::settings::client
