#include "Session.h"

#include <algorithm>
#include <cstdlib>

#include "IniText.h"
#include "ServerRequests.h"
#include "StandardStreams.h"
#include "client/ServerLookup.h"
#include "common/Protocol.h"
#include "korlo/osa/Exception.h"
#include "korlo/osa/ServiceDirectory.h"
#include "settings/RefusedException.h"
#include "settings/ServerAddress.h"
#include "settings/common/GroupNameMatcher.h"

namespace korlo::settings::cli
{
namespace
{

constexpr const char* LocalFileVariable = "KORLO_SETTINGS_LOCALFILE";

/// For the connections that are not told an address: those of watching clients, and the tool's own.
void RegisterServer(const std::string& text)
{
    try
    {
        const ServerAddress address = ServerAddress::Parse(text);
        osa::ServiceDirectory::Register(client::ServerHost, address.host, address.port);
    }
    catch (const osa::Exception& error)
    {
        throw Failure(StatusWrongCommandLine, std::string("--server: ") + error.what(),
                      "for example --server 127.0.0.1:4711 or --server unix:/run/korlo-settings/socket");
    }
}

/// A pattern that a list can carry and that selects the group too, and perhaps more; the name itself if it fits.
std::string LooseName(std::string name)
{
    std::ranges::replace(name, '\n', '*');
    return common::FitsGroupList(name) ? name : name + '*';
}

}  // namespace

/// What the client library throws, as the failure of a command.
template <typename Call>
auto Session::Guarded(const Call& call) const
{
    try
    {
        return call();
    }
    catch (const RefusedException& refused)
    {
        throw Failure(StatusNo, Reason(refused.what()), "'korlo-settings access check' tells which rule decides");
    }
    catch (const osa::Exception& error)
    {
        throw Unreachable(error);
    }
}

Session::Session(const Target& target, Purpose purpose) : _target(target), _purpose(purpose)
{
    if (target.server)
    {
        RegisterServer(*target.server);
    }
    if (target.server || target.localFile)
    {
        ::unsetenv(LocalFileVariable);  // the client heeds it before everything else
    }
}

KorloSettingsClient& Session::Client()
{
    if (_pClient == nullptr)
    {
        // NOLINTNEXTLINE(modernize-make-unique): a client cannot be moved, so it is made in its place.
        Guarded([this] { _pClient.reset(new KorloSettingsClient(Open())); });
    }
    return *_pClient;
}

KorloSettingsClient Session::Open()
{
    if (_target.localFile)
    {
        _pLocalFile = std::make_unique<LocalFile>(*_target.localFile, _purpose);
        return KorloSettingsClient(KorloSettingsClient::Local, _pLocalFile->GetDocument());
    }
    if (IsInProcess() && (_purpose == Changing || _purpose == ChangingOrCreating))
    {
        WriteMessage(std::string("note: with ") + LocalFileVariable +
                     " set, a change ends with this process; --local FILE changes a file");
    }
    if (_purpose != Watching || IsInProcess())
    {
        return KorloSettingsClient::Confirming(_target.server.value_or(""));
    }
    // Only a multi-threaded client hears of changes. It goes on trying for ever when there is no server; a person is
    // told at once.
    core::IniFile nothing;
    KorloSettingsClient::Confirming(_target.server.value_or("")).GetSettings(GroupNameCollection(), nothing);
    return KorloSettingsClient(KorloSettingsClient::MultiThreaded);
}

core::IniFile Session::Read(const GroupNameCollection& groups)
{
    GroupNameCollection asked;
    for (const std::string& group : groups)
    {
        asked.insert(IsInProcess() ? group : LooseName(group));
    }
    core::IniFile found;
    const KorloSettingsClient& client = Client();
    Guarded([&] { client.GetSettings(asked, found); });
    common::GroupNameMatcher matcher;
    matcher.AddNamesAndPatterns(groups);
    core::IniFile selected;
    matcher.MergeMatchingGroups(found, selected);
    return selected;
}

void Session::Change(const GroupNameCollection& groups, const Operation& operation)
{
    if (!_target.localFile)
    {
        ChangeForNow(operation);
        return;
    }
    const core::IniFile before = Read(groups);
    ChangeForNow(operation);
    const core::IniFile after = Read(groups);
    Guarded([&] { _pLocalFile->Apply(before, after); });
}

void Session::ChangeForNow(const Operation& operation)
{
    KorloSettingsClient& client = Client();
    Guarded([&] { operation(client); });
}

void Session::Subscribe(IChangeCallback& callback, const GroupNameCollection& groups, IConnectionCallback& connection)
{
    KorloSettingsClient& client = Client();
    Guarded([&] {
        // What the client has read is what it compares with when it comes back.
        client.ReportMissedChanges(true);
        if (!IsInProcess())
        {
            core::IniFile before;
            client.GetSettings(groups, before);
        }
        client.Subscribe(&callback, groups);
        // Whoever is subscribed hears no confirmation. The answer to a later request on the same connection is one.
        core::IniFile nothing;
        client.GetSettings(GroupNameCollection(), nothing);
        client.SetConnectionCallback(&connection);
    });
}

std::string Session::Dump(bool all)
{
    if (IsInProcess())
    {
        return all ? TextOf(Read({"*"})) : std::string();
    }
    return Guarded([&] { return DumpServer(all); });
}

GroupNameCollection Session::GetSubscribedGroups() const
{
    return IsInProcess() ? GroupNameCollection() : Guarded([&] { return GetSubscribedGroupsOfServer(); });
}

bool Session::IsInProcess() const
{
    return _target.localFile || (!_target.server && std::getenv(LocalFileVariable) != nullptr);
}

bool Session::CanSend(const GroupNameCollection& groups) const
{
    return IsInProcess() || std::ranges::all_of(groups, common::FitsGroupList);
}

void Session::CheckNames(const GroupNameCollection& groups) const
{
    for (const std::string& group : groups)
    {
        if (!CanSend({group}))
        {
            throw Failure(StatusWrongCommandLine,
                          "a name that holds a line break, or is a single full stop, cannot be sent to a server: " +
                              Quoted(group),
                          "a pattern that matches it can: " + Quoted(LooseName(group)));
        }
    }
}

Failure Session::Unreachable(const std::exception& error) const
{
    if (IsInProcess())
    {
        return Failure(StatusUnusable, Reason(error.what()));
    }
    // What a connected client throws names the server itself.
    const std::string server = _target.server && _pClient == nullptr ? " at " + Quoted(*_target.server) : std::string();
    return Failure(StatusUnusable, "failed to talk to the settings server" + server + ": " + Reason(error.what()),
                   _target.server ? "is korlo-settings-server running there? --local FILE works without a server"
                                  : "--server ADDRESS names a server, --local FILE works on a file without one");
}

}  // namespace korlo::settings::cli
