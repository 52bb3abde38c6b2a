#pragma once
// What the rules about a client let it do.

#include <cstddef>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "access/AccessRules.h"
#include "korlo/osa/Mutex.h"
#include "korlo/osa/ThreadAnnotations.h"
#include "settings/server/IClientAccess.h"

namespace korlo::daemon
{

enum class AccessKind
{
    Read,
    Change
};

/// Why a client may, or may not.
///
/// Thread safety: none of its own; the owner guards it.
struct AccessDecision
{
    enum class Reason
    {
        NoRules,       ///< the server was given none: allowed
        Privileged,    ///< user 0 or the server's own user: allowed
        Allowed,       ///< by the rule that is named
        Denied,        ///< by the rule that is named, whatever others allow
        NotAllowed,    ///< no rule allows it
        ErasedRecord,  ///< the record of erased groups, which is changed only by who may change everything
        Restricted     ///< a restricted group, which no client changes (of AccessControl alone)
    };

    bool isAllowed;
    Reason reason;
    std::string rule;      ///< the name, without "Access/"; empty where no rule decided
    std::string file;      ///< of that rule
    std::size_t line = 0;  ///< of the key that decided
};

/// The union of what some rules allow, less the union of what they deny. One object serves all clients that the same
/// rules are about. What may be done with a group is worked out when it is first asked for, and kept.
///
/// Thread safety: all methods, from any thread. The verdicts that are kept have a lock of their own, under which
/// nothing else is called; what was kept depends on nothing that changes, so two threads that work out the same at once
/// agree.
class ClientRights : public settings::server::IAccessRights
{
public:
    /// About 16,000 groups, or fewer of longer names; then it begins anew.
    static constexpr std::size_t MostBytesKept = 2 * 1024 * 1024;

    /// @param pRules kept for as long as this object lives.
    /// @param applicable which of them are about the client.
    ClientRights(std::shared_ptr<const AccessRules> pRules, const ApplicableRules& applicable);
    ClientRights(const ClientRights&) = delete;
    ClientRights& operator=(const ClientRights&) = delete;

    bool MayReadEverything() const override { return _mayReadEverything; }
    bool MayRead(const std::string& group) const override { return _mayReadEverything || VerdictOn(group).mayRead; }
    bool MayReadAllOf(const std::string& nameOrPattern) const override;
    bool MayChangeEverything() const override { return _mayChangeEverything; }
    bool MayChange(const std::string& group) const override
    {
        return _mayChangeEverything || VerdictOn(group).mayChange;
    }
    bool MayChangeAllOf(const std::string& nameOrPattern) const override;

    /// The rule that decides about everything that the entry can match.
    AccessDecision Explain(AccessKind kind, const std::string& nameOrPattern) const;

    /// The bytes that verdicts take, roughly.
    std::size_t GetBytesKept() const KORLO_EXCLUDES(_mutex);

private:
    enum class EntryKind
    {
        Name,    // every character stands for itself
        Pattern  // '*' stands for any run of characters
    };

    struct Verdict
    {
        bool mayRead;
        bool mayChange;
    };

    Verdict VerdictOn(const std::string& group) const KORLO_EXCLUDES(_mutex);
    Verdict WorkOut(const std::string& group) const;
    AccessDecision Decide(AccessKind kind, const std::string& entry, EntryKind entryKind) const;
    AccessDecision DecideByRules(AccessKind kind, const std::string& entry, EntryKind entryKind) const;

    const std::shared_ptr<const AccessRules> _pRules;
    std::vector<const AccessRule*> _allowing;  // of *_pRules, as are those that deny
    std::vector<const AccessRule*> _denying;
    bool _mayReadEverything = false;
    bool _mayChangeEverything = false;

    mutable osa::Mutex _mutex;
    mutable std::unordered_map<std::string, Verdict> _verdicts KORLO_GUARDED_BY(_mutex);
    mutable std::size_t _bytesKept KORLO_GUARDED_BY(_mutex) = 0;
};

}  // namespace korlo::daemon
