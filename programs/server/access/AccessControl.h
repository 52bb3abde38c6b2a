#pragma once
// The access rules that are in force, and the clients that they are about.

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>

#include "PlainMutex.h"
#include "access/AccessRules.h"
#include "access/ClientRights.h"
#include "access/IUserDatabase.h"
#include "access/RefusalLog.h"
#include "korlo/osa/Mutex.h"
#include "korlo/osa/ThreadAnnotations.h"
#include "settings/server/IClientAccess.h"

namespace korlo::daemon
{

class ClientAccess;

/// One for a server. Clients about whom the same rules are share one set of rights.
///
/// Thread safety: all methods, from any thread. A set of rights never changes: other rules make other sets. What was
/// asked for before Replace returned may still go by the rules before; AwaitNewRules waits for the end of that. Locks
/// are taken in the order _clientsMutex, that of a ClientAccess, _mutex or _rightsMutex.
class AccessControl
{
public:
    /// @param pRules null where the server was given none: everything is allowed.
    /// @param ownUser who may do everything beside user 0; see OwnUser.
    AccessControl(std::shared_ptr<const AccessRules> pRules, std::optional<uid_t> ownUser);
    AccessControl(const AccessControl&) = delete;
    AccessControl& operator=(const AccessControl&) = delete;

    /// The user that this process runs as; none where that is the overflow user, whom others may look like.
    static std::optional<uid_t> OwnUser(const IUserDatabase& users);

    /// Puts other rules in force, for standing connections too.
    void Replace(std::shared_ptr<const AccessRules> pRules) KORLO_EXCLUDES(_mutex);

    /// Returns once nobody goes by rules before those that are in force now: when every answer and notification for
    /// which a client's rights were asked before has been made. Must not be called by who holds such rights.
    void AwaitNewRules() KORLO_EXCLUDES(_clientsMutex, _rightsMutex, _mutex);

    /// Those that are in force; null where the server was given none.
    std::shared_ptr<const AccessRules> GetRules() const KORLO_EXCLUDES(_mutex);

    /// Goes up when rules are replaced, and never comes back.
    std::uint64_t GetGeneration() const { return _generation; }

    /// What the client may do now; never null.
    /// @param generation set to that of the rules that were asked.
    std::shared_ptr<const settings::server::IAccessRights> GetRights(const ClientIdentity& client,
                                                                     std::uint64_t& generation) KORLO_EXCLUDES(_mutex);

    /// Of all clients.
    RefusalLog& GetRefusalLog() { return _refusalLog; }

    /// What decides whether the client may read, or change, everything that the entry can match.
    AccessDecision Explain(const ClientIdentity& client, AccessKind kind, const std::string& nameOrPattern)
        KORLO_EXCLUDES(_mutex);

private:
    friend class ClientAccess;
    class RightsInUse;

    void Register(ClientAccess& client) KORLO_EXCLUDES(_clientsMutex);
    void Unregister(ClientAccess& client) KORLO_EXCLUDES(_clientsMutex);
    bool MayDoEverything(const ClientIdentity& client) const KORLO_REQUIRES(_mutex);
    std::shared_ptr<const ClientRights> RightsOf(const ClientIdentity& client) KORLO_REQUIRES(_mutex);

    const std::optional<uid_t> _ownUser;
    RefusalLog _refusalLog;
    settings::server::FullAccess _fullAccess;

    mutable osa::Mutex _mutex;
    std::atomic<std::uint64_t> _generation = 1;  // written with the mutex held, so that it belongs to `_pRules`
    std::shared_ptr<const AccessRules> _pRules KORLO_GUARDED_BY(_mutex);
    // An entry lives as long as a client that it is about, or until the next is made.
    std::map<ApplicableRules, std::weak_ptr<const ClientRights>> _rights KORLO_GUARDED_BY(_mutex);
    // For RightsOf alone: what it frees on a connection's thread, the allocator would keep back for each such thread.
    ApplicableRules _applicable KORLO_GUARDED_BY(_mutex);

    PlainMutex _clientsMutex;
    std::set<ClientAccess*> _clients KORLO_GUARDED_BY(_clientsMutex);  // borrowed

    PlainMutex _rightsMutex;
    std::condition_variable_any _rightsReleased;
    std::map<std::uint64_t, std::size_t> _rightsInUse KORLO_GUARDED_BY(_rightsMutex);  // how many of which generation
};

/// One connection's access. It asks the control anew when the rules have changed, and at no other time. Whoever asks it
/// for rights holds them until what they decide about has been sent: that is what AccessControl::AwaitNewRules waits
/// for.
///
/// Thread safety: as IClientAccess; GetRefusals from any thread.
class ClientAccess : public settings::server::IClientAccess
{
public:
    /// @param control borrowed; must outlive this object and the rights that it gave.
    /// @param description of the client, for people.
    /// @param source what all its connections have in common, as RefusalLog takes it.
    ClientAccess(AccessControl& control, const ClientIdentity& client, const std::string& description,
                 const std::string& source = std::string());
    ClientAccess(const ClientAccess&) = delete;
    ClientAccess& operator=(const ClientAccess&) = delete;
    ~ClientAccess() override;

    std::shared_ptr<const settings::server::IAccessRights> GetRights() const override KORLO_EXCLUDES(_mutex);

    /// Counts the change, and warns of it as RefusalLog does.
    void OnRefused(const std::string& operation, const settings::GroupNameCollection& refused) override;

    /// Lets go of the rights that are kept for the next request, should they be of rules before.
    void ForgetOldRights() KORLO_EXCLUDES(_mutex);

    /// How many changes of this client were refused.
    std::uint64_t GetRefusals() const { return _refusals; }

private:
    AccessControl& _control;
    const ClientIdentity _client;
    const std::string _description;
    const std::string _source;
    std::atomic<std::uint64_t> _refusals = 0;

    mutable osa::Mutex _mutex;  // taken before that of the control
    mutable std::uint64_t _generation KORLO_GUARDED_BY(_mutex) = 0;
    mutable std::shared_ptr<const AccessControl::RightsInUse> _pRights KORLO_GUARDED_BY(_mutex);
};

}  // namespace korlo::daemon
