#pragma once
// A client of the settings, wherever the command line says they are.

#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "Failure.h"
#include "LocalFile.h"
#include "korlo/core/IniFile.h"
#include "settings/GroupNameCollection.h"
#include "settings/IChangeCallback.h"
#include "settings/IConnectionCallback.h"
#include "settings/KorloSettingsClient.h"

namespace korlo::settings::cli
{

/// Where the settings are. Without either, the client library's own rules hold.
struct Target
{
    std::optional<std::string> server;     ///< as ServerAddress takes it
    std::optional<std::string> localFile;  ///< a path
};

/// Opens the client that a command needs, at the first use, and sees to it that a change has arrived, in the server or
/// in the local file, before the command ends.
///
/// Every operation throws Failure with StatusUnusable when the server cannot be reached or the file cannot be used, and
/// with StatusWrongCommandLine for a name that cannot be sent to a server.
///
/// Thread safety: none of its own; the owner guards it.
class Session
{
public:
    using enum Purpose;
    using Operation = std::function<void(KorloSettingsClient&)>;

    /// @param target a server's address that makes no sense throws Failure with StatusWrongCommandLine.
    Session(const Target& target, Purpose purpose);
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    /// The selected groups, whatever bytes their names hold.
    core::IniFile Read(const GroupNameCollection& groups);

    /// Makes a persistent change. When this returns, the server has carried it out, or it has been written to the local
    /// file.
    /// @param groups the names and patterns of all groups that the operation may touch.
    void Change(const GroupNameCollection& groups, const Operation& operation);

    /// The same for a change that is not persisted: it is not written to the local file.
    void ChangeForNow(const Operation& operation);

    /// For the Watching purpose. When this returns, no later change is missed; what changes while a server is away is
    /// reported when it is back.
    /// @param callback borrowed; must outlive this session.
    /// @param connection the same; hears of what becomes of the connection from then on.
    void Subscribe(IChangeCallback& callback, const GroupNameCollection& groups, IConnectionCallback& connection);

    /// The user layer, or all settings, as INI text. The settings of a file are defaults: its user layer is empty.
    std::string Dump(bool all);

    /// What all clients of the server are subscribed to, names and patterns; nothing when there is no server.
    GroupNameCollection GetSubscribedGroups() const;

    /// True when the store lives in this process, so that nobody else hears of its changes, or makes any.
    bool IsInProcess() const;

    /// True when an overwrite, a restore or a subscription can send all of them where the settings are.
    bool CanSend(const GroupNameCollection& groups) const;

    /// Nothing for names and patterns that an overwrite, a restore or a subscription can send where the settings are.
    /// @throws Failure with StatusWrongCommandLine.
    void CheckNames(const GroupNameCollection& groups) const;

private:
    KorloSettingsClient& Client();
    KorloSettingsClient Open();
    Failure Unreachable(const std::exception& error) const;
    template <typename Call>
    auto Guarded(const Call& call) const;

    const Target _target;
    const Purpose _purpose;
    std::unique_ptr<LocalFile> _pLocalFile;         // null without --local
    std::unique_ptr<KorloSettingsClient> _pClient;  // null until the first use
};

}  // namespace korlo::settings::cli
