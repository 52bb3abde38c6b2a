#include "access/AccessControl.h"

#include <unistd.h>

#include "settings/server/GroupDiscriminator.h"

namespace korlo::daemon
{

using settings::server::IAccessRights;

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
    _rights.clear();
    ++_generation;
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
}

std::shared_ptr<const IAccessRights> ClientAccess::GetRights() const
{
    const osa::MutexAutoLock lock(&_mutex);
    if (_generation != _control.GetGeneration())
    {
        _pRights = _control.GetRights(_client, _generation);
    }
    return _pRights;
}

void ClientAccess::OnRefused(const std::string& operation, const settings::GroupNameCollection& refused)
{
    ++_refusals;
    osa::TimeStruct now;
    osa::TimeMonotonic(now);
    _control.GetRefusalLog().Add(_source, _description, operation, refused, now);
}

}  // namespace korlo::daemon
