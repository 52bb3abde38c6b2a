#include "settings/ResourceReserver.h"

namespace korlo::settings
{

ResourceReserver::ResourceReserver(KorloSettingsClient* pClient, const std::string& resource,
                                   const std::string& consumer)
    : _manager(pClient),
      _consumer(consumer),
      _resource(resource)
{
}

bool ResourceReserver::TrySetUsage(int units)
{
    _manager.Refresh();
    return _manager.ReserveForConsumer(_consumer, {{_resource, false, units, 0.0}});
}

bool ResourceReserver::TrySetUsagePercent(double fraction)
{
    _manager.Refresh();
    return _manager.ReserveForConsumer(_consumer, {{_resource, true, 0, fraction}});
}

int ResourceReserver::GetAvailableResources() const
{
    _manager.Refresh();
    return _manager.GetAvailable(_consumer, _resource);
}

double ResourceReserver::GetAvailableResourcesPercent() const
{
    _manager.Refresh();
    return _manager.GetAvailablePercent(_consumer, _resource);
}

int ResourceReserver::GetCurrentUsage() const
{
    _manager.Refresh();
    return _manager.GetUsed(_consumer, _resource);
}

int ResourceReserver::GetTotalResources() const
{
    _manager.Refresh();
    return _manager.GetTotal(_resource);
}

bool ResourceReserver::IsAuthorized() const
{
    return _manager.IsAuthorized(_consumer, _resource);
}

}  // namespace korlo::settings
