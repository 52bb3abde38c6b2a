#include "Session.h"

#include <cstdlib>

#include "Failure.h"
#include "IniText.h"
#include "ServerAddress.h"
#include "StandardStreams.h"
#include "korlo/osa/ServiceDirectory.h"

namespace korlo::settings::cli
{
namespace
{

constexpr const char* LocalFileVariable = "KORLO_SETTINGS_LOCALFILE";
constexpr const char* ServerHost = "korlo-settings-server";

LocalFile::Access AccessFor(Session::Purpose purpose)
{
    switch (purpose)
    {
    case Session::Changing:
        return LocalFile::Change;
    case Session::ChangingOrCreating:
        return LocalFile::ChangeOrCreate;
    case Session::Watching:
        return LocalFile::ChangeNowAndThen;
    default:
        return LocalFile::ReadOnly;
    }
}

}  // namespace

Session::Session(const Target& target, Purpose purpose) : _target(target)
{
    if (target.server)
    {
        const ServerAddress address = ServerAddress::Parse(*target.server);
        osa::ServiceDirectory::Register(ServerHost, address.host, address.port);
    }
    if (target.server || target.localFile)
    {
        ::unsetenv(LocalFileVariable);  // the client heeds it before everything else
    }
    Guarded([&] { Open(purpose); });
}

Session::~Session() = default;

void Session::Open(Purpose purpose)
{
    if (_target.localFile)
    {
        _pLocalFile = std::make_unique<LocalFile>(*_target.localFile, AccessFor(purpose));
        _pClient = std::make_unique<KorloSettingsClient>(KorloSettingsClient::Local, _pLocalFile->GetDocument());
        return;
    }
    if (!IsInProcess())
    {
        OpenServer(purpose);
        return;
    }
    _pClient = std::make_unique<KorloSettingsClient>(KorloSettingsClient::Local);
    if (purpose == Changing || purpose == ChangingOrCreating)
    {
        WriteMessage(std::string("note: with ") + LocalFileVariable +
                     " set, a change ends with this process; --local FILE changes a file");
    }
}

void Session::OpenServer(Purpose purpose)
{
    if (purpose != Watching)
    {
        _pServer = std::make_unique<ServerConnection>();
        return;
    }
    CheckServer();
    _pClient = std::make_unique<KorloSettingsClient>(KorloSettingsClient::MultiThreaded);  // this one hears of changes
}

/// Tells a person at once what the client library, which goes on trying for ever, would not.
void Session::CheckServer()
{
    ServerConnection connection;
    core::IniFile nothing;
    connection.GetSettings(GroupNameCollection(), nothing);
    connection.Quit();
}

core::IniFile Session::Read(const GroupNameCollection& groups) const
{
    core::IniFile settings;
    Guarded([&] {
        _pServer != nullptr ? _pServer->GetSettings(groups, settings) : _pClient->GetSettings(groups, settings);
    });
    return settings;
}

void Session::SaveDifference(const core::IniFile& before, const core::IniFile& after)
{
    Guarded([&] { _pLocalFile->Apply(before, after); });
}

void Session::Subscribe(IChangeCallback& callback, const GroupNameCollection& groups)
{
    if (!IsInProcess())
    {
        ServerConnection::CheckNames(groups);
    }
    Guarded([&] { _pClient->Subscribe(&callback, groups); });
    // Whoever is subscribed hears no confirmation. An answer to a later request on the same connection is one.
    Read(GroupNameCollection());
}

std::string Session::Dump(bool all) const
{
    if (_pServer == nullptr)
    {
        return all ? TextOf(Read({"*"})) : std::string();
    }
    std::string text;
    Guarded([&] { text = _pServer->Dump(all); });
    return text;
}

GroupNameCollection Session::GetSubscribedGroups() const
{
    GroupNameCollection groups;
    if (_pServer != nullptr)
    {
        Guarded([&] { groups = _pServer->GetSubscribedGroups(); });
    }
    return groups;
}

bool Session::IsInProcess() const
{
    return _target.localFile || (!_target.server && std::getenv(LocalFileVariable) != nullptr);
}

Failure Session::Unreachable(const std::exception& error) const
{
    if (IsInProcess())
    {
        return Failure(StatusUnusable, Reason(error.what()));
    }
    const std::string server = _target.server ? " at " + Quoted(*_target.server) : std::string();
    return Failure(StatusUnusable, "failed to talk to the settings server" + server + ": " + Reason(error.what()),
                   _target.server ? "is korlo-settings-server running there? --local FILE works without a server"
                                  : "--server HOST:PORT names a server, --local FILE works on a file without one");
}

}  // namespace korlo::settings::cli
