#include "client/KorloSettingsClientImplSingleThreaded.h"

#include <string>

#include "client/FirstWord.h"
#include "client/RemoteCommands.h"
#include "korlo/osa/Exception.h"

namespace korlo::settings::client
{
namespace
{

constexpr int Attempts = 5;
constexpr int ConnectionAttempts = 5;

}  // namespace

KorloSettingsClientImplSingleThreaded::KorloSettingsClientImplSingleThreaded(KorloSettingsConnection* pConnection)
    : _pClientLogger(core::Logger::GetLogger("KorloSettingsClient")),
      _commandMutex(nullptr),
      _pConnection(pConnection)
{
}

KorloSettingsClientImplSingleThreaded::~KorloSettingsClientImplSingleThreaded() = default;

void KorloSettingsClientImplSingleThreaded::GetSettings(const GroupNameCollection& groups,
                                                        core::IniFile& settings) const
{
    core::IniFile received;  // of an answer that is cut short, nothing may reach the caller
    GetSettingsCommand command(&groups, &received);
    RunCommand("getsettings", command);
    AddReceived(received, settings);
}

void KorloSettingsClientImplSingleThreaded::MergeSettings(const core::IniFile& changes, unsigned int flags)
{
    MergeCommand command(&changes, flags);
    RunCommand("merge", command);
}

bool KorloSettingsClientImplSingleThreaded::TestAndMerge(const core::IniFile& expected, const core::IniFile& changes)
{
    TestAndMergeCommand command(&expected, &changes);
    RunCommand("test-and-merge", command);
    return command.GetOutcome();
}

void KorloSettingsClientImplSingleThreaded::Subscribe(IChangeCallback*, const GroupNameCollection&)
{
    throw osa::Exception("KorloSettingsClient::Subscribe not supported in single threaded mode");
}

void KorloSettingsClientImplSingleThreaded::OverwriteSettings(const GroupNameCollection& groups,
                                                              const core::IniFile& settings)
{
    OverwriteCommand command(&groups, &settings);
    RunCommand("overwrite", command);
}

void KorloSettingsClientImplSingleThreaded::RestoreToDefaults(const GroupNameCollection& groups)
{
    RestoreToDefaultsCommand command(&groups);
    RunCommand("restore", command);
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
    throw osa::Exception("Failed to connect to korlo-settings-server");
}

bool KorloSettingsClientImplSingleThreaded::Attempt(RemoteCommand& command) const
{
    _pConnection->EnsureConnection(ConnectionAttempts);
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
        if (FirstWord(line) == command.GetResponseKeyword())
        {
            command.HandleResponse(in);
            return in.good();  // else the connection was lost inside the response, which is none then
        }
    }
    return false;
}

}  // namespace korlo::settings::client
