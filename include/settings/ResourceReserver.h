#pragma once
// One consumer's use of one resource.

#include <string>

#include "settings/ResourceManager.h"

namespace korlo::settings
{

/// Binds a consumer and a resource of a ResourceManager. Every call but IsAuthorized reads the figures again before it
/// answers or reserves, so it acts on current values; if that fails, what the client throws passes out.
///
///     ResourceReserver bandwidth(&client, "Bandwidth", "video");
///     if (bandwidth.TrySetUsage(20))
///         Stream();
///     bandwidth.TrySetUsage(0);
///
/// Thread safety: none of its own; one thread at a time.
class ResourceReserver
{
public:
    /// The resource comes before the consumer here, unlike in the operations of ResourceManager.
    /// @param pClient borrowed, not null; must outlive the reserver.
    ResourceReserver(KorloSettingsClient* pClient, const std::string& resource, const std::string& consumer);
    ResourceReserver(const ResourceReserver&) = delete;
    ResourceReserver& operator=(const ResourceReserver&) = delete;

    /// Gives nothing back: the holding stays until somebody sets it. To release it, call TrySetUsage(0) first.
    ~ResourceReserver() = default;

    /// Sets the holding to `units`, and does not add to it; false, and nothing changed, when that is more than is
    /// available.
    bool TrySetUsage(int units);

    /// Sets the holding to a fraction of the total: 0.5 is half of it.
    bool TrySetUsagePercent(double fraction);

    /// The most that the consumer may hold in all.
    int GetAvailableResources() const;

    /// The same as a fraction of the total.
    double GetAvailableResourcesPercent() const;

    /// What the consumer holds.
    int GetCurrentUsage() const;

    /// The units that there are.
    int GetTotalResources() const;

    /// Whether the consumer may use the resource, by what was read last; the first call of all reads it.
    bool IsAuthorized() const;

private:
    ResourceManager _manager;
    std::string _consumer;
    std::string _resource;
};

}  // namespace korlo::settings
