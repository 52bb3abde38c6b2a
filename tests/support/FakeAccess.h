#pragma once
// Clients that may do what a test says.

#include <cstddef>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "korlo/core/StringUtil.h"
#include "server/ErasedGroups.h"
#include "settings/server/IClientAccess.h"

namespace korlo::settings::server
{

/// What some patterns allow, less what others deny.
///
/// Thread safety: none of its own; any number of threads may ask.
class FakeRights : public IAccessRights
{
public:
    std::vector<std::string> read;
    std::vector<std::string> change;  // reading included
    std::vector<std::string> deny;

    bool MayReadEverything() const override { return MayReadAllOf("*"); }
    bool MayRead(const std::string& group) const override
    {
        return !AnyMatches(deny, group) && (AnyMatches(read, group) || AnyMatches(change, group));
    }
    bool MayReadAllOf(const std::string& nameOrPattern) const override
    {
        return !AnyMeets(deny, nameOrPattern) && (AnyMatches(read, nameOrPattern) || AnyMatches(change, nameOrPattern));
    }

    bool MayChangeEverything() const override { return AnyMatches(change, "*") && deny.empty(); }
    bool MayChange(const std::string& group) const override
    {
        return MayChangeEverything() ||
               (group != ErasedGroups && !AnyMatches(deny, group) && AnyMatches(change, group));
    }
    bool MayChangeAllOf(const std::string& nameOrPattern) const override
    {
        return MayChangeEverything() || (!core::StringUtil::MatchesPattern(nameOrPattern, ErasedGroups) &&
                                         !AnyMeets(deny, nameOrPattern) && AnyMatches(change, nameOrPattern));
    }

    /// True when nothing that the entry can match may be read.
    bool HidesAllOf(const std::string& nameOrPattern) const
    {
        return AnyMatches(deny, nameOrPattern) || (!AnyMeets(read, nameOrPattern) && !AnyMeets(change, nameOrPattern));
    }

private:
    /// Of an entry, too: its asterisks are matched by asterisks alone, for no pattern holds one otherwise.
    static bool AnyMatches(const std::vector<std::string>& patterns, const std::string& name)
    {
        for (const std::string& pattern : patterns)
        {
            if (core::StringUtil::MatchesPattern(pattern, name))
            {
                return true;
            }
        }
        return false;
    }

    static bool AnyMeets(const std::vector<std::string>& patterns, const std::string& entry)
    {
        for (const std::string& pattern : patterns)
        {
            if (Meet(pattern, entry))
            {
                return true;
            }
        }
        return false;
    }

    /// True when there is a name that both match: worked out from their ends, so that many asterisks cost no more.
    static bool Meet(const std::string& left, const std::string& right)
    {
        std::vector<std::vector<bool>> meet(left.size() + 1, std::vector<bool>(right.size() + 1, false));
        for (std::size_t i = left.size() + 1; i-- > 0;)
        {
            for (std::size_t j = right.size() + 1; j-- > 0;)
            {
                const bool hasLeft = i < left.size();
                const bool hasRight = j < right.size();
                if ((hasLeft && left[i] == '*') || (hasRight && right[j] == '*'))
                {
                    // An asterisk ends here, or takes one more character, or asterisk, of the other.
                    meet[i][j] = (hasLeft && meet[i + 1][j]) || (hasRight && meet[i][j + 1]);
                }
                else
                {
                    meet[i][j] = hasLeft == hasRight && (!hasLeft || (left[i] == right[j] && meet[i + 1][j + 1]));
                }
            }
        }
        return meet[0][0];
    }
};

/// A client whose rights a test may exchange at any time, and what was refused to it.
///
/// Thread safety: none of its own; the owner guards it.
class FakeAccess : public IClientAccess
{
public:
    explicit FakeAccess(FakeRights rights = {}) { Set(std::move(rights)); }

    void Set(FakeRights rights) { _pRights = std::make_shared<const FakeRights>(std::move(rights)); }

    std::shared_ptr<const IAccessRights> GetRights() const override { return _pRights; }

    void OnRefused(const std::string& operation, const GroupNameCollection& groups) override
    {
        refusals.emplace_back(operation, groups);
    }

    std::vector<std::pair<std::string, GroupNameCollection>> refusals;

private:
    std::shared_ptr<const FakeRights> _pRights;
};

}  // namespace korlo::settings::server
