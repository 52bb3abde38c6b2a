#include "access/ClientRights.h"

#include <algorithm>
#include <string_view>

#include "access/GroupPatterns.h"

namespace korlo::daemon
{
namespace
{

using Reason = AccessDecision::Reason;

// Where the store keeps which groups were erased.
constexpr std::string_view ErasedRecord = "KorloSettings/Data/DeletedGroups";

constexpr std::size_t BytesOfAVerdict = 96;  // the node, its place in the table, and what the allocator adds

bool IsPattern(const std::string& entry)
{
    return entry.find('*') != std::string::npos;
}

/// True, and the decision made, when one of the patterns does.
template <typename Does>
bool DecidesBy(const AccessRule& rule, const AccessPatterns& patterns, const Does& does, Reason reason,
               AccessDecision& decision)
{
    if (!std::any_of(patterns.patterns.begin(), patterns.patterns.end(), does))
    {
        return false;
    }
    decision = {reason == Reason::Allowed, reason, rule.name, rule.file, patterns.line};
    return true;
}

}  // namespace

ClientRights::ClientRights(std::shared_ptr<const AccessRules> pRules, const ApplicableRules& applicable)
    : _pRules(std::move(pRules))
{
    for (const std::size_t index : applicable.whole)
    {
        _allowing.push_back(&(*_pRules)[index]);
    }
    _denying = _allowing;
    for (const std::size_t index : applicable.denyOnly)
    {
        _denying.push_back(&(*_pRules)[index]);
    }
    // To be covered, '*' needs a pattern of asterisks alone, and it meets every denial that there is.
    _mayChangeEverything = DecideByRules(AccessKind::Change, "*", EntryKind::Pattern).isAllowed;
    _mayReadEverything = DecideByRules(AccessKind::Read, "*", EntryKind::Pattern).isAllowed;
}

bool ClientRights::MayReadAllOf(const std::string& nameOrPattern) const
{
    return IsPattern(nameOrPattern) ? Explain(AccessKind::Read, nameOrPattern).isAllowed : MayRead(nameOrPattern);
}

bool ClientRights::MayChangeAllOf(const std::string& nameOrPattern) const
{
    return IsPattern(nameOrPattern) ? Explain(AccessKind::Change, nameOrPattern).isAllowed : MayChange(nameOrPattern);
}

AccessDecision ClientRights::Explain(AccessKind kind, const std::string& nameOrPattern) const
{
    return IsPattern(nameOrPattern) ? Decide(kind, WithoutRepeatedStars(nameOrPattern), EntryKind::Pattern)
                                    : Decide(kind, nameOrPattern, EntryKind::Name);
}

std::size_t ClientRights::GetBytesKept() const
{
    const osa::MutexAutoLock lock(&_mutex);
    return _bytesKept;
}

ClientRights::Verdict ClientRights::VerdictOn(const std::string& group) const
{
    {
        const osa::MutexAutoLock lock(&_mutex);
        const auto kept = _verdicts.find(group);
        if (kept != _verdicts.end())
        {
            return kept->second;
        }
    }
    const Verdict verdict = WorkOut(group);
    const std::size_t bytes = group.size() + BytesOfAVerdict;
    if (bytes > MostBytesKept / 256)
    {
        return verdict;  // no real group: a name that would push out the verdicts on many
    }
    const osa::MutexAutoLock lock(&_mutex);
    if (_bytesKept + bytes > MostBytesKept)
    {
        _verdicts.clear();
        _bytesKept = 0;
    }
    _bytesKept += _verdicts.try_emplace(group, verdict).second ? bytes : 0;
    return verdict;
}

ClientRights::Verdict ClientRights::WorkOut(const std::string& group) const
{
    const AccessDecision change = Decide(AccessKind::Change, group, EntryKind::Name);
    if (change.isAllowed || change.reason == Reason::Denied)
    {
        return {change.isAllowed, change.isAllowed};
    }
    return {Decide(AccessKind::Read, group, EntryKind::Name).isAllowed, false};
}

AccessDecision ClientRights::Decide(AccessKind kind, const std::string& entry, EntryKind entryKind) const
{
    AccessDecision decision = DecideByRules(kind, entry, entryKind);
    // An entry in this record takes the defaults of any group away at the next start: writing it changes them all.
    if (kind == AccessKind::Change && decision.isAllowed && !_mayChangeEverything &&
        (entryKind == EntryKind::Pattern ? Covers(entry, ErasedRecord) : entry == ErasedRecord))
    {
        return {false, Reason::ErasedRecord, {}, {}, 0};
    }
    return decision;
}

AccessDecision ClientRights::DecideByRules(AccessKind kind, const std::string& entry, EntryKind entryKind) const
{
    const auto covers = [&entry](const std::string& pattern) { return Covers(pattern, entry); };
    const auto meets = [&entry, entryKind](const std::string& pattern) {
        return entryKind == EntryKind::Pattern ? Meet(pattern, entry) : Covers(pattern, entry);
    };
    AccessDecision decision = {false, Reason::NotAllowed, {}, {}, 0};
    for (const AccessRule* pRule : _denying)
    {
        if (DecidesBy(*pRule, pRule->deny, meets, Reason::Denied, decision))
        {
            return decision;
        }
    }
    for (const AccessRule* pRule : _allowing)
    {
        if ((kind == AccessKind::Read && DecidesBy(*pRule, pRule->read, covers, Reason::Allowed, decision)) ||
            DecidesBy(*pRule, pRule->change, covers, Reason::Allowed, decision))
        {
            return decision;
        }
    }
    return decision;
}

}  // namespace korlo::daemon
