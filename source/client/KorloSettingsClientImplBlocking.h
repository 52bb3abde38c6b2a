#pragma once
// What the clients without a reader thread have in common.

#include "client/KorloSettingsClientImpl.h"
#include "client/RemoteCommand.h"

namespace korlo::settings::client
{

/// Makes a command of each operation and leaves it to the implementation to carry it out on the caller's thread.
/// Nobody reads between two commands, so subscribing is refused.
///
/// Thread safety: as the implementation says.
class KorloSettingsClientImplBlocking : public KorloSettingsClientImpl
{
public:
    using KorloSettingsClientImpl::KorloSettingsClientImpl;

    void GetSettings(const GroupNameCollection& groups, core::IniFile& settings) const override;
    void MergeSettings(const core::IniFile& changes, unsigned int flags) override;
    bool TestAndMerge(const core::IniFile& expected, const core::IniFile& changes) override;

    /// @throws osa::Exception "KorloSettingsClient::Subscribe not supported in single threaded mode", always.
    void Subscribe(IChangeCallback* pCallback, const GroupNameCollection& groups) override;
    void OverwriteSettings(const GroupNameCollection& groups, const core::IniFile& settings) override;
    void RestoreToDefaults(const GroupNameCollection& groups) override;

    /// Sends the command and reads its response, if it has one.
    /// @param name names the operation in messages.
    virtual void RunCommand(const char* name, RemoteCommand& command) const = 0;
};

}  // namespace korlo::settings::client
