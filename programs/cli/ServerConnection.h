#pragma once
// The settings protocol as the tool speaks it.

#include <string>

#include "korlo/core/IniFile.h"
#include "korlo/osa/TcpSocket.h"
#include "korlo/osa/TcpSocketStream.h"
#include "settings/GroupNameCollection.h"

namespace korlo::settings::cli
{

/// One connection to the settings server, which is never replaced by another one. So a change that was not confirmed
/// is reported: a KorloSettingsClient connects again by itself, and what it reads then tells nothing of a change that
/// the lost connection took along. The operations are those of KorloSettingsClient, for commands that use either.
///
/// Every operation returns when the server has answered. It throws osa::Exception when the connection is lost or no
/// answer comes in time, and Failure with StatusWrongCommandLine, before it sends anything, for a name that the
/// protocol cannot carry.
///
/// Thread safety: none of its own; the owner guards it.
class ServerConnection
{
public:
    /// Connects to where the client library looks for the server.
    /// @throws osa::Exception at once when nobody listens there.
    ServerConnection();

    /// Adds the selected groups to `settings`, whatever bytes their names hold.
    void GetSettings(const GroupNameCollection& groups, core::IniFile& settings);

    /// @param flags of server::SettingsManager.
    void MergeSettings(const core::IniFile& changes, unsigned int flags = 0);
    bool TestAndMerge(const core::IniFile& expected, const core::IniFile& changes);
    void OverwriteSettings(const GroupNameCollection& groups, const core::IniFile& settings);
    void EraseGroups(const GroupNameCollection& groups);
    void RestoreToDefaults(const GroupNameCollection& groups);

    /// The user layer, or all settings, as INI text.
    std::string Dump(bool all);

    /// What all clients of the server are subscribed to, names and patterns.
    GroupNameCollection GetSubscribedGroups();

    /// Ends the connection; when this returns, the server counts one client less. No other call may follow.
    void Quit();

    /// @throws Failure for a name that the protocol cannot carry.
    static void CheckNames(const GroupNameCollection& groups);

private:
    std::ostream& Out() { return _stream.GetOstream(); }
    void Confirm();
    void Expect(const std::string& expected);
    std::string ReadLine();
    std::string ReadBlock();

    osa::TcpSocket _socket;
    osa::TcpSocketStream _stream;
};

}  // namespace korlo::settings::cli
