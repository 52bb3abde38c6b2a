#pragma once
// What clients asked for and were promised, to hold against what the store has.

#include <map>
#include <mutex>
#include <string>

#include "World.h"
#include "korlo/core/IniFile.h"

namespace korlo::soak
{

/// Counters, each raised by one client: what the store holds lies between the last value that was acknowledged and the
/// last that was asked for, whatever was killed in between. And one counter that many raise: the store holds every step
/// that was acknowledged, and no more than these and the ones whose fate is unknown.
///
/// Thread safety: all methods, from any thread.
class Ledger
{
public:
    explicit Ledger(World& world) : _world(world) {}

    /// The document that sets a counter: the value twice, so that half of it shows.
    static core::IniFile DocumentOf(const std::string& group, int value)
    {
        core::IniFile document;
        document.SetValue(group, "value", std::to_string(value));
        document.SetValue(group, "again", std::string(100, 'x') + std::to_string(value));
        return document;
    }

    void Ask(const std::string& group, int value)
    {
        const std::lock_guard lock(_mutex);
        _counters[group].asked = std::max(_counters[group].asked, value);
    }

    void Acknowledge(const std::string& group, int value)
    {
        const std::lock_guard lock(_mutex);
        _counters[group].acknowledged = std::max(_counters[group].acknowledged, value);
        ++_acknowledgements;
    }

    /// Takes the value of a counter out of the settings and checks it.
    int Check(const std::string& group, const core::IniFile& settings)
    {
        return Check(group, settings, Promised(group));
    }

    /// What was acknowledged by now: settings that are read later must not hold less.
    int Promised(const std::string& group) const
    {
        const std::lock_guard lock(_mutex);
        const auto counter = _counters.find(group);
        return counter == _counters.end() ? 0 : counter->second.acknowledged;
    }

    /// The same for settings that were read when `least` had been promised.
    int Check(const std::string& group, const core::IniFile& settings, int least)
    {
        const int value = settings.GetIntOrDefault(group, "value", 0);
        if (value != 0 && settings.GetValueOrDefault(group, "again") != std::string(100, 'x') + std::to_string(value))
        {
            _world.Fail("counter " + group + " is half of one value and half of another");
        }
        const std::lock_guard lock(_mutex);
        if (value < least || value > _counters[group].asked)
        {
            _world.Fail("counter " + group + " is " + std::to_string(value) + ", acknowledged was " +
                        std::to_string(least) + ", asked for " + std::to_string(_counters[group].asked));
        }
        return value;
    }

    void CheckAll(const core::IniFile& settings)
    {
        std::map<std::string, Counter> counters;
        {
            const std::lock_guard lock(_mutex);
            counters = _counters;
        }
        for (const auto& [group, counter] : counters)
        {
            Check(group, settings, counter.acknowledged);
        }
    }

    void CountShared(bool isAcknowledged)
    {
        const std::lock_guard lock(_mutex);
        ++(isAcknowledged ? _shared : _sharedUnknown);
    }

    void CheckShared(int value)
    {
        const std::lock_guard lock(_mutex);
        if (value < _shared || value > _shared + _sharedUnknown)
        {
            _world.Fail("the shared counter is " + std::to_string(value) + " after " + std::to_string(_shared) +
                        " acknowledged steps and " + std::to_string(_sharedUnknown) + " of unknown fate");
        }
    }

    int CountAcknowledgements() const
    {
        const std::lock_guard lock(_mutex);
        return _acknowledgements + _shared;
    }

private:
    struct Counter
    {
        int acknowledged = 0;
        int asked = 0;
    };

    World& _world;

    mutable std::mutex _mutex;
    std::map<std::string, Counter> _counters;
    int _shared = 0;
    int _sharedUnknown = 0;
    int _acknowledgements = 0;
};

}  // namespace korlo::soak
