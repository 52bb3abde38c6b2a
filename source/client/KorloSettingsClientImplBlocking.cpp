#include "client/KorloSettingsClientImplBlocking.h"

#include "client/RemoteCommands.h"
#include "korlo/osa/Exception.h"

namespace korlo::settings::client
{
namespace
{

/// A get that may be sent again: of an answer that was cut short, nothing is kept.
///
/// Thread safety: as RemoteCommand.
class RepeatableGet : public GetSettingsCommand
{
public:
    using GetSettingsCommand::GetSettingsCommand;

    void SendRequest(std::ostream& out) override
    {
        _pResult->Clear();
        GetSettingsCommand::SendRequest(out);
    }
};

}  // namespace

void KorloSettingsClientImplBlocking::GetSettings(const GroupNameCollection& groups, core::IniFile& settings) const
{
    core::IniFile received;  // of an answer that is cut short, nothing may reach the caller
    RepeatableGet command(&groups, &received);
    RunCommand("getsettings", command);
    AddReceived(received, settings);
}

void KorloSettingsClientImplBlocking::MergeSettings(const core::IniFile& changes, unsigned int flags)
{
    MergeCommand command(&changes, flags);
    RunCommand("merge", command);
}

bool KorloSettingsClientImplBlocking::TestAndMerge(const core::IniFile& expected, const core::IniFile& changes)
{
    TestAndMergeCommand command(&expected, &changes);
    RunCommand("test-and-merge", command);
    return command.GetOutcome();
}

void KorloSettingsClientImplBlocking::Subscribe(IChangeCallback*, const GroupNameCollection&)
{
    throw osa::Exception("KorloSettingsClient::Subscribe not supported in single threaded mode");
}

void KorloSettingsClientImplBlocking::OverwriteSettings(const GroupNameCollection& groups,
                                                        const core::IniFile& settings)
{
    OverwriteCommand command(&groups, &settings);
    RunCommand("overwrite", command);
}

void KorloSettingsClientImplBlocking::RestoreToDefaults(const GroupNameCollection& groups)
{
    RestoreToDefaultsCommand command(&groups);
    RunCommand("restore", command);
}

}  // namespace korlo::settings::client
