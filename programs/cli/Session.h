#pragma once
// A client of the settings, wherever the command line says they are.

#include <memory>
#include <optional>
#include <string>

#include "Failure.h"
#include "LocalFile.h"
#include "ServerConnection.h"
#include "korlo/core/IniFile.h"
#include "korlo/osa/Exception.h"
#include "settings/GroupNameCollection.h"
#include "settings/KorloSettingsClient.h"

namespace korlo::settings::cli
{

/// Where the settings are. Without either, the client library's own rules hold.
struct Target
{
    std::optional<std::string> server;     ///< HOST:PORT
    std::optional<std::string> localFile;  ///< a path
};

/// Opens the client that a command needs, and sees to it that a change has arrived, in the server or in the local
/// file, before the command ends.
///
/// Every operation throws Failure with StatusUnusable when the server cannot be reached or the file cannot be used.
///
/// Thread safety: none of its own; the owner guards it.
class Session
{
public:
    /// How a command uses the settings.
    enum Purpose
    {
        Reading,
        Changing,            ///< A local file must exist.
        ChangingOrCreating,  ///< A local file that is missing counts as an empty one.
        Watching             ///< Changes may be made and are heard of, see Subscribe.
    };

    /// @param target a HOST:PORT that makes no sense throws Failure with StatusWrongCommandLine.
    Session(const Target& target, Purpose purpose);
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;
    ~Session();

    /// The selected groups.
    core::IniFile Read(const GroupNameCollection& groups) const;

    /// Makes a change to last. When this returns, the server has carried it out, or it has been written to the local
    /// file.
    /// @param groups the names and patterns of all groups that the operation may touch.
    /// @param operation is called with a reference to a KorloSettingsClient or to a ServerConnection.
    template <typename Operation>
    void Change(const GroupNameCollection& groups, const Operation& operation);

    /// The same for a change that is not to last: it is not written to the local file.
    template <typename Operation>
    void ChangeForNow(const Operation& operation);

    /// For the Watching purpose. When this returns, no later change is missed.
    /// @param callback borrowed; must outlive this session.
    void Subscribe(IChangeCallback& callback, const GroupNameCollection& groups);

    /// The user layer, or all settings, as INI text. The settings of a file are defaults: its user layer is empty.
    std::string Dump(bool all) const;

    /// What all clients of the server are subscribed to, names and patterns; nothing when there is no server.
    GroupNameCollection GetSubscribedGroups() const;

    /// True when the store lives in this process, so that nobody else hears of its changes, or makes any.
    bool IsInProcess() const;

private:
    void Open(Purpose purpose);
    void OpenServer(Purpose purpose);
    static void CheckServer();
    Failure Unreachable(const std::exception& error) const;
    void SaveDifference(const core::IniFile& before, const core::IniFile& after);
    template <typename Call>
    void Guarded(const Call& call) const;

    const Target _target;
    std::unique_ptr<LocalFile> _pLocalFile;         // null without --local
    std::unique_ptr<KorloSettingsClient> _pClient;  // null where there is a connection
    std::unique_ptr<ServerConnection> _pServer;     // null in a process of its own, and for watching
};

template <typename Operation>
void Session::Change(const GroupNameCollection& groups, const Operation& operation)
{
    if (_pLocalFile == nullptr)
    {
        ChangeForNow(operation);
        return;
    }
    const core::IniFile before = Read(groups);
    ChangeForNow(operation);
    SaveDifference(before, Read(groups));
}

template <typename Operation>
void Session::ChangeForNow(const Operation& operation)
{
    Guarded([&] { _pServer != nullptr ? operation(*_pServer) : operation(*_pClient); });
}

template <typename Call>
void Session::Guarded(const Call& call) const
{
    try
    {
        call();
    }
    catch (const osa::Exception& error)
    {
        throw Unreachable(error);
    }
}

}  // namespace korlo::settings::cli
