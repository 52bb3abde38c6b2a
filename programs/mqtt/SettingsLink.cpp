#include "SettingsLink.h"

#include <utility>

#include "korlo/osa/Exception.h"
#include "korlo/osa/ServiceDirectory.h"
#include "settings/ServerAddress.h"

namespace korlo::settings::mqtt
{
namespace
{

constexpr const char* ServerHost = "korlo-settings-server";

/// Clients find the server by its host's name.
void DirectClientsTo(const std::string& address)
{
    if (!address.empty())
    {
        const ServerAddress server = ServerAddress::Parse(address);
        osa::ServiceDirectory::Register(ServerHost, server.host, server.port);
    }
}

}  // namespace

SettingsLink::SettingsLink(const std::string& address, const GroupNameCollection& patterns, const WakeUp& wakeUp)
    : _patterns(patterns),
      _wakeUp(wakeUp)
{
    DirectClientsTo(address);
    _pClient = std::make_unique<KorloSettingsClient>(KorloSettingsClient::MultiThreaded);
    _pClient->SetConnectionCallback(this);
}

SettingsLink::~SettingsLink()
{
    _pClient->SetConnectionCallback(nullptr);
    _pClient.reset();
}

SettingsLink::News SettingsLink::TakeNews()
{
    const osa::MutexAutoLock lock(&_mutex);
    News news = std::move(_news);
    _news = {};
    _news.isConnected = news.isConnected;
    return news;
}

/// The first read after a connection was lost fails for that reason alone.
void SettingsLink::Read(const GroupNameCollection& entries, core::IniFile& settings) const
{
    try
    {
        _pClient->GetSettings(entries, settings);
    }
    catch (const osa::LockException&)
    {
        throw;  // there is no connection
    }
    catch (const osa::Exception&)
    {
        _pClient->GetSettings(entries, settings);
    }
}

void SettingsLink::OnChange(const GroupNameCollection& changedGroups, const core::IniFile&)
{
    {
        const osa::MutexAutoLock lock(&_mutex);
        _news.changed.insert(changedGroups.begin(), changedGroups.end());
    }
    _wakeUp.Raise();
}

/// Subscribes on the first connection; the client does so by itself on all others, before it says that it is connected.
void SettingsLink::OnConnectionState(bool isConnected)
{
    if (isConnected && !_isSubscribed && !_patterns.empty())
    {
        try
        {
            _pClient->Subscribe(this, _patterns);
            _isSubscribed = true;
        }
        catch (const osa::Exception&)
        {
            return;  // the connection is lost already: the next one is heard of, too
        }
    }
    {
        const osa::MutexAutoLock lock(&_mutex);
        _news.isConnected = isConnected;
        _news.hasReconnected = _news.hasReconnected || isConnected;
    }
    _wakeUp.Raise();
}

}  // namespace korlo::settings::mqtt
