#include "access/AccessControl.h"

#include <unistd.h>

#include "settings/server/GroupDiscriminator.h"

namespace korlo::daemon
{

using settings::server::IAccessRights;

/// Rights that one client's connection keeps, and shares with each answer and notification that is being made by them.
///
/// Thread safety: nothing changes between construction and destruction.
class AccessControl::RightsInUse
{
public:
    /// @param generation that of the rights.
    RightsInUse(AccessControl& control, std::uint64_t generation, std::shared_ptr<const IAccessRights> pRights)
        : _control(control),
          _generation(generation),
          _pRights(std::move(pRights))
    {
        const PlainLock lock(_control._rightsMutex);
        ++_control._rightsInUse[_generation];
    }

    RightsInUse(const RightsInUse&) = delete;
    RightsInUse& operator=(const RightsInUse&) = delete;

    ~RightsInUse()
    {
        const PlainLock lock(_control._rightsMutex);
        const auto ofGeneration = _control._rightsInUse.find(_generation);
        if (--ofGeneration->second == 0)
        {
            _control._rightsInUse.erase(ofGeneration);
            _control._rightsReleased.notify_all();
        }
    }

    const IAccessRights* Get() const { return _pRights.get(); }

private:
    AccessControl& _control;
    const std::uint64_t _generation;
    const std::shared_ptr<const IAccessRights> _pRights;
};

AccessControl::AccessControl(std::shared_ptr<const AccessRules> pRules, std::optional<uid_t> ownUser)
    : _ownUser(ownUser),
      _pRules(std::move(pRules))
{
}

std::optional<uid_t> AccessControl::OwnUser(const IUserDatabase& users)
{
    const uid_t user = ::geteuid();
    return user == users.GetOverflowUser() ? std::nullopt : std::optional(user);
}

void AccessControl::Replace(std::shared_ptr<const AccessRules> pRules)
{
    const osa::MutexAutoLock lock(&_mutex);
    _pRules = std::move(pRules);
    _rights.clear();  // else a client would find those that were worked out from the rules before
    ++_generation;
}

void AccessControl::AwaitNewRules()
{
    const std::uint64_t generation = _generation;
    {
        // A client that has asked for the rules before, and does not use them yet, holds its lock.
        const PlainLock lock(_clientsMutex);
        for (ClientAccess* pClient : _clients)
        {
            pClient->ForgetOldRights();
        }
    }
    // Rights of this generation or a later one may stay for as long as they like.
    const PlainLock lock(_rightsMutex);
    while (!_rightsInUse.empty() && _rightsInUse.begin()->first < generation)
    {
        _rightsReleased.wait(_rightsMutex);
    }
}

void AccessControl::Register(ClientAccess& client)
{
    const PlainLock lock(_clientsMutex);
    _clients.insert(&client);
}

void AccessControl::Unregister(ClientAccess& client)
{
    const PlainLock lock(_clientsMutex);
    _clients.erase(&client);
}

std::shared_ptr<const AccessRules> AccessControl::GetRules() const
{
    const osa::MutexAutoLock lock(&_mutex);
    return _pRules;
}

std::shared_ptr<const IAccessRights> AccessControl::GetRights(const ClientIdentity& client, std::uint64_t& generation)
{
    const osa::MutexAutoLock lock(&_mutex);
    generation = _generation;
    return MayDoEverything(client) ? _fullAccess.GetRights() : RightsOf(client);
}

AccessDecision AccessControl::Explain(const ClientIdentity& client, AccessKind kind, const std::string& nameOrPattern)
{
    using Reason = AccessDecision::Reason;
    if (kind == AccessKind::Change && settings::server::GroupDiscriminator::IsRestrictedGroup(nameOrPattern))
    {
        return {false, Reason::Restricted, {}, {}, 0};
    }
    const osa::MutexAutoLock lock(&_mutex);
    if (MayDoEverything(client))
    {
        return {true, _pRules ? Reason::Privileged : Reason::NoRules, {}, {}, 0};
    }
    return RightsOf(client)->Explain(kind, nameOrPattern);
}

bool AccessControl::MayDoEverything(const ClientIdentity& client) const
{
    return !_pRules || (client.user && (*client.user == 0 || client.user == _ownUser));
}

std::shared_ptr<const ClientRights> AccessControl::RightsOf(const ClientIdentity& client)
{
    _applicable.whole.clear();
    _applicable.denyOnly.clear();
    for (std::size_t index = 0; index < _pRules->size(); ++index)
    {
        const AccessRule& rule = (*_pRules)[index];
        if (rule.IsAbout(client))
        {
            _applicable.whole.push_back(index);
        }
        else if (rule.MayBeAbout(client))
        {
            _applicable.denyOnly.push_back(index);
        }
    }
    const auto kept = _rights.find(_applicable);
    if (kept != _rights.end())
    {
        if (auto pRights = kept->second.lock())
        {
            return pRights;
        }
    }
    // Clients come and go with ever other groups: what nobody uses any more must not add up.
    std::erase_if(_rights, [](const auto& entry) { return entry.second.expired(); });
    auto pRights = std::make_shared<const ClientRights>(_pRules, _applicable);
    _rights[_applicable] = pRights;
    return pRights;
}

ClientAccess::ClientAccess(AccessControl& control, const ClientIdentity& client, const std::string& description,
                           const std::string& source)
    : _control(control),
      _client(client),
      _description(description),
      _source(source)
{
    _control.Register(*this);
}

ClientAccess::~ClientAccess()
{
    _control.Unregister(*this);
}

std::shared_ptr<const IAccessRights> ClientAccess::GetRights() const
{
    const osa::MutexAutoLock lock(&_mutex);
    // The usual request finds its rights here, and never touches the control's lock, which all clients share.
    if (_generation != _control.GetGeneration())
    {
        std::uint64_t generation = 0;
        std::shared_ptr<const IAccessRights> pRights = _control.GetRights(_client, generation);
        _pRights = std::make_shared<const AccessControl::RightsInUse>(_control, generation, std::move(pRights));
        _generation = generation;
    }
    return {_pRights, _pRights->Get()};
}

void ClientAccess::ForgetOldRights()
{
    const osa::MutexAutoLock lock(&_mutex);
    if (_generation != _control.GetGeneration())
    {
        _pRights.reset();
        _generation = 0;
    }
}

void ClientAccess::OnRefused(const std::string& operation, const settings::GroupNameCollection& refused)
{
    ++_refusals;
    osa::TimeStruct now;
    osa::TimeMonotonic(now);
    _control.GetRefusalLog().Add(_source, _description, operation, refused, now);
}

}  // namespace korlo::daemon
