#pragma once
// So many messages of one kind and no more.

#include "korlo/core/Logger.h"

namespace korlo::settings::mqtt
{

/// Lets the first messages of a kind through, and says once that there are more: what an enemy, or a thousand groups
/// with the same fault, can cause without end must not fill the log.
///
///     if (_refusals.Allows()) _pLogger->Warning(...);
///
/// Thread safety: none of its own; the owner guards it.
class LogBudget
{
public:
    /// @param kind what there is more of, in the plural.
    explicit LogBudget(const char* kind) : _kind(kind) {}

    void Renew() { _used = 0; }

    bool Allows()
    {
        constexpr unsigned int most = 10;
        _used += _used <= most ? 1 : 0;
        if (_used == most + 1)
        {
            ++_used;
            core::Logger::GetLogger("MqttBridge")->Warning("There are more %s, which are not logged", _kind);
        }
        return _used <= most;
    }

private:
    const char* const _kind;
    unsigned int _used = 0;
};

}  // namespace korlo::settings::mqtt
