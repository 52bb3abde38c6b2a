#include "settings/ResourceManager.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <optional>
#include <set>
#include <string_view>
#include <utility>

#include "korlo/core/IniFile.h"
#include "korlo/osa/Exception.h"
#include "settings/KorloSettingsClient.h"

namespace korlo::settings
{
namespace
{

using core::IniFile;

constexpr const char* CurrentlyUsed = "CurrentlyUsed";
constexpr const char* MaxAllowed = "MaxAllowed";
constexpr const char* TotalAvailable = "TotalAvailable";
constexpr int DefaultTotal = 100;

std::string GroupOf(const std::string& resource)
{
    return "Resources/" + resource;
}

std::string ConsumersPrefix(const std::string& resource)
{
    return GroupOf(resource) + "/Consumers/";
}

/// Sums of what the settings say may leave the range of int; they are cut off at its ends.
int Clamp(std::int64_t number)
{
    return static_cast<int>(
        std::clamp<std::int64_t>(number, std::numeric_limits<int>::min(), std::numeric_limits<int>::max()));
}

/// Whole units for a share of the total, or nothing when it is more than is available.
std::optional<int> UnitsOfShare(double share, int available)
{
    constexpr double tolerance = 0.01;  // the product of 0.07 and 100 is a little above 7
    if (available >= 0 && share > available && share <= available + tolerance)
    {
        return available;
    }
    const double units = std::ceil(share);
    return units >= 0 && units <= available ? std::optional(static_cast<int>(units))
                                            : std::nullopt;  // a NaN is neither
}

}  // namespace

/// Thread safety: none of its own; one thread at a time.
class ResourceManager::ResourceManagerImpl
{
public:
    explicit ResourceManagerImpl(KorloSettingsClient* pClient) : _pClient(pClient)
    {
        if (pClient == nullptr)
        {
            throw osa::Exception("%s was NULL", "client");
        }
    }

    /// Replaces the cache as a whole or, if anything throws, not at all: an empty one would stand for the default
    /// totals and for resources that everybody may use.
    void Refresh()
    {
        _isBehind = true;
        IniFile current;
        for (const std::string& resource : _knownResources)
        {
            Read(resource, current);
        }
        _cache = std::move(current);
        _isBehind = false;
    }

    int GetUsed(const std::string& consumer, const std::string& resource)
    {
        EnsureRead(resource);
        return _cache.GetIntOrDefault(ConsumersPrefix(resource) + consumer, CurrentlyUsed, 0);
    }

    int GetTotal(const std::string& resource)
    {
        EnsureRead(resource);
        return _cache.GetIntOrDefault(GroupOf(resource), TotalAvailable, DefaultTotal);
    }

    bool IsAuthorized(const std::string& consumer, const std::string& resource)
    {
        EnsureRead(resource);
        const auto allowed = _cache.Find(GroupOf(resource) + "/AllowedConsumers");
        return allowed == _cache.cend() ||
               std::any_of(allowed->second.begin(), allowed->second.end(),
                           [&consumer](const auto& entry) { return entry.second == consumer; });
    }

    int GetAvailable(const std::string& consumer, const std::string& resource)
    {
        if (!IsAuthorized(consumer, resource))
        {
            return 0;
        }
        const int free = Clamp(GetTotal(resource) - UsedByOthers(consumer, resource));
        const int cap = _cache.GetIntOrDefault(ConsumersPrefix(resource) + consumer, MaxAllowed, free);
        return std::min(cap, free);
    }

    bool Reserve(const std::string& consumer, const std::list<ResourceUsage>& usages)
    {
        if (_isBehind)
        {
            Refresh();
        }
        for (;;)
        {
            IniFile changes;
            for (const ResourceUsage& usage : usages)
            {
                const std::optional<int> units = UnitsFor(consumer, usage);
                if (!units)
                {
                    return false;
                }
                changes.SetInt(ConsumersPrefix(usage.resource) + consumer, CurrentlyUsed, *units);
            }
            _isBehind = true;  // a client that throws may have written all the same
            if (_pClient->TestAndMerge(_cache, changes))
            {
                _cache.MergeSettings(changes);
                _isBehind = false;
                return true;
            }
            Refresh();  // somebody else was faster: compute everything again
        }
    }

private:
    void EnsureRead(const std::string& resource)
    {
        if (!_knownResources.contains(resource))
        {
            IniFile current;  // read apart: of an answer that is cut short, nothing may stay
            Read(resource, current);
            _cache.MergeSettings(current);
            _knownResources.insert(resource);
        }
    }

    /// A name with a line break could not be sent: a star in its place selects the groups too. What else comes with
    /// them does no harm.
    void Read(const std::string& resource, IniFile& settings) const
    {
        std::string pattern = GroupOf(resource) + "*";
        std::ranges::replace(pattern, '\n', '*');
        _pClient->GetSettings(pattern, settings);
    }

    std::int64_t UsedByOthers(const std::string& consumer, const std::string& resource) const
    {
        const std::string prefix = ConsumersPrefix(resource);
        std::int64_t used = 0;
        std::string_view last;
        for (auto group = _cache.LowerBound(prefix); group != _cache.cend() && group->first.starts_with(prefix);
             ++group)
        {
            std::string_view name = std::string_view(group->first).substr(prefix.size());
            name = name.substr(0, name.find('/'));
            // A consumer's subgroups follow its own group, as a rule, and are skipped as the name kept last. Where "A+"
            // sorts between "A" and "A/Detail", A counts twice: too much rather than too little.
            if (name != last && name != consumer)
            {
                used += _cache.GetIntOrDefault(prefix + std::string(name), CurrentlyUsed, 0);
            }
            last = name;
        }
        return used;
    }

    /// What the consumer would hold, or nothing when it may not.
    std::optional<int> UnitsFor(const std::string& consumer, const ResourceUsage& usage)
    {
        const int available = GetAvailable(consumer, usage.resource);
        if (usage.isPercent)
        {
            return UnitsOfShare(usage.fraction * GetTotal(usage.resource), available);
        }
        return usage.units < 0 || usage.units > available ? std::nullopt : std::optional<int>(usage.units);
    }

    KorloSettingsClient* const _pClient;  // borrowed
    IniFile _cache;  // all that was read: a reservation tests all of it, and so everything that it was computed from
    std::set<std::string> _knownResources;  // those whose groups are in the cache
    // A refresh or a reservation threw, so that the store may hold what the cache does not. The test of the next
    // reservation would miss a consumer that has no group in the cache; it reads everything again first. Getters go on
    // answering from the figures that were read last.
    bool _isBehind = false;
};

ResourceManager::ResourceManager(KorloSettingsClient* pClient) : _pImpl(std::make_unique<ResourceManagerImpl>(pClient))
{
}

ResourceManager::~ResourceManager() = default;

void ResourceManager::Refresh() const
{
    _pImpl->Refresh();
}

int ResourceManager::GetUsed(const std::string& consumer, const std::string& resource) const
{
    return _pImpl->GetUsed(consumer, resource);
}

int ResourceManager::GetTotal(const std::string& resource) const
{
    return _pImpl->GetTotal(resource);
}

int ResourceManager::GetAvailable(const std::string& consumer, const std::string& resource) const
{
    return _pImpl->GetAvailable(consumer, resource);
}

double ResourceManager::GetAvailablePercent(const std::string& consumer, const std::string& resource) const
{
    return static_cast<double>(GetAvailable(consumer, resource)) / GetTotal(resource);
}

bool ResourceManager::IsAuthorized(const std::string& consumer, const std::string& resource) const
{
    return _pImpl->IsAuthorized(consumer, resource);
}

bool ResourceManager::ReserveResource(const std::string& consumer, const std::string& resource, int units)
{
    return ReserveForConsumer(consumer, {{resource, false, units, 0.0}});
}

bool ResourceManager::ReserveForConsumer(const std::string& consumer, const std::list<ResourceUsage>& usages)
{
    return _pImpl->Reserve(consumer, usages);
}

}  // namespace korlo::settings
