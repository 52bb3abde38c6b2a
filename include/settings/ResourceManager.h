#pragma once
// Countable resources that processes share by way of the settings.

#include <cstdint>
#include <list>
#include <memory>
#include <string>

namespace korlo::settings
{

class KorloSettingsClient;

/// Accounts for resources: each has a total of units, perhaps a list of the consumers that may use it, and for each
/// consumer what it uses now and perhaps a cap. All of it is kept in the settings:
///
/// | group                                  | key              | meaning                            | when absent   |
/// |----------------------------------------|------------------|------------------------------------|---------------|
/// | Resources/RESOURCE                     | TotalAvailable   | units of the resource              | 100           |
/// | Resources/RESOURCE/AllowedConsumers    | any              | each value names one consumer      | everybody may |
/// | Resources/RESOURCE/Consumers/CONSUMER  | CurrentlyUsed    | units that it holds                | 0             |
/// | the same                               | MaxAllowed       | the most that it may hold          | no cap        |
///
/// A reservation is a test-and-merge of everything that it was computed from: if anybody changed any of it meanwhile,
/// the manager reads it again and retries. A consumer whose CurrentlyUsed appears between the reading and the
/// writing is not seen; where the total must never be exceeded, let every consumer's group hold CurrentlyUsed=0
/// beforehand. The name of a consumer holds no '/': what follows it is taken for a subgroup, and not counted by the
/// others.
///
/// Figures come from a cache, which is filled at the first use of a resource and renewed by Refresh, or by a
/// reservation whose test failed. What the client throws passes out. The figures that were known stay then, and the
/// next reservation reads them again before it relies on them; a resource that was never read is read at its next use.
///
/// Thread safety: none of its own; one thread at a time. Any number of managers, in any number of processes.
class ResourceManager
{
public:
    /// A requested holding of one resource.
    struct ResourceUsage
    {
        std::string resource;  ///< its name
        bool isPercent;        ///< true: `fraction` counts, else `units`
        std::int32_t units;    ///< what the consumer is to hold in all
        double fraction;       ///< the same as a share of the total: 1.0 is all of it, 0.25 a quarter
    };

    /// Reads nothing yet.
    /// @param pClient borrowed, not null; must outlive the manager.
    /// @throws osa::Exception "%s was NULL".
    explicit ResourceManager(KorloSettingsClient* pClient);
    ResourceManager(const ResourceManager&) = delete;
    ResourceManager& operator=(const ResourceManager&) = delete;

    /// Gives nothing back: what consumers hold stays in the settings. A consumer that is done reserves 0.
    ~ResourceManager();

    /// Reads every resource that was used so far again: all of them, or none if the client throws.
    void Refresh() const;

    /// The units that the consumer holds.
    int GetUsed(const std::string& consumer, const std::string& resource) const;

    /// The units that there are.
    int GetTotal(const std::string& resource) const;

    /// The most that the consumer may hold in all, its present holding included: what the others leave of the total, or
    /// its cap if that is less. 0 for a consumer that is not allowed; negative when the others hold more than the
    /// total.
    int GetAvailable(const std::string& consumer, const std::string& resource) const;

    /// The same as a fraction of the total (0.25 for a quarter); a total of 0 divides by zero as doubles do.
    double GetAvailablePercent(const std::string& consumer, const std::string& resource) const;

    /// True when the resource has no list of allowed consumers, or the list names this one.
    bool IsAuthorized(const std::string& consumer, const std::string& resource) const;

    /// Sets what the consumer holds of one resource to `units`. See ReserveForConsumer.
    bool ReserveResource(const std::string& consumer, const std::string& resource, int units);

    /// Sets what the consumer holds of every listed resource, all or nothing; false, and nothing written, when any of
    /// it is more than is available or less than 0. A fraction is rounded up to whole units, and a hundredth of a unit
    /// over the available amount is put down to floating-point error. Holding 0 is refused only while the others hold
    /// more than the total. If a resource is listed twice, the later entry counts. If the client throws, the
    /// reservation may have been written all the same.
    /// @throws RefusedException when the server's access rules do not allow it; nothing is written then.
    bool ReserveForConsumer(const std::string& consumer, const std::list<ResourceUsage>& usages);

private:
    class ResourceManagerImpl;

    std::unique_ptr<ResourceManagerImpl> _pImpl;
};

}  // namespace korlo::settings
