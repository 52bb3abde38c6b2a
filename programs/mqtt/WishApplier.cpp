#include "WishApplier.h"

#include <algorithm>
#include <exception>

#include "NumberText.h"
#include "korlo/osa/Exception.h"
#include "settings/RefusedException.h"

namespace korlo::settings::mqtt
{
namespace
{

std::uint64_t AppliedVersion(const core::IniFile& settings, const std::string& group)
{
    return NumberIn<std::uint64_t>(settings.GetValueOrDefault(FleetGroup, group)).value_or(0);
}

core::IniFile ChangesOf(const std::string& group, const Desired& wish)
{
    core::IniFile changes;
    for (const auto& [key, value] : wish.state)
    {
        changes.SetValue(group, key, value);
    }
    changes.SetValue(FleetGroup, group, std::to_string(wish.version));
    return changes;
}

bool FitsList(const std::string& group)
{
    return group != "." && group.find('\n') == std::string::npos;
}

WishOutcome Reject(const Desired& wish, Rejection::Code code, const std::string& message, std::uint64_t applied = 0)
{
    return {WishOutcome::Rejected, {wish.version, code, message, applied}, ""};
}

std::string NamesIn(const GroupNameCollection& groups)
{
    std::string names;
    for (const std::string& group : groups)
    {
        names += (names.empty() ? "'" : ", '") + group + '\'';
    }
    return names;
}

}  // namespace

std::string EntryFor(const std::string& group)
{
    if (group == ".")
    {
        return ".*";
    }
    std::string entry = group;
    std::replace(entry.begin(), entry.end(), '\n', '*');
    return entry;
}

template <typename Call>
auto ConfirmingSettings::With(const Call& call)
{
    if (_pConnection == nullptr)
    {
        _pConnection = std::make_unique<Connection>(_address);
    }
    try
    {
        return call(_pConnection->client);
    }
    catch (const RefusedException&)
    {
        throw;  // and the client goes on working
    }
    catch (...)
    {
        _pConnection.reset();
        throw;
    }
}

/// A connection that was idle may be that to a server which has been restarted since; a read can be repeated.
void ConfirmingSettings::GetSettings(const GroupNameCollection& entries, core::IniFile& settings)
{
    const auto get = [&](const KorloSettingsClient& client) { client.GetSettings(entries, settings); };
    if (_pConnection != nullptr)
    {
        try
        {
            With(get);
            return;
        }
        catch (const osa::Exception&)
        {
            // By a new connection, then.
        }
    }
    With(get);
}

bool ConfirmingSettings::TestAndMerge(const core::IniFile& expected, const core::IniFile& changes)
{
    return With([&](KorloSettingsClient& client) { return client.TestAndMerge(expected, changes); });
}

void ConfirmingSettings::OverwriteSettings(const GroupNameCollection& entries, const core::IniFile& replacement)
{
    With([&](KorloSettingsClient& client) { client.OverwriteSettings(entries, replacement); });
}

WishOutcome WishApplier::Apply(const std::string& group, const Desired& wish, bool isRepeated)
{
    if (wish.replaces && (group.find('*') != std::string::npos || !FitsList(group)))
    {
        return Reject(wish, Rejection::MakesNoSense,
                      "a group whose name holds '*' or a line break, or is '.', cannot be replaced");
    }
    try
    {
        return TryApply(group, wish, isRepeated);
    }
    catch (const RefusedException& refused)
    {
        return Reject(wish, Rejection::NotAllowed,
                      "the access rules of the device do not allow the bridge to change " +
                          NamesIn(refused.GetGroups()));
    }
    catch (const std::exception& exception)
    {
        return {WishOutcome::Failed, {}, exception.what()};
    }
}

WishOutcome WishApplier::TryApply(const std::string& group, const Desired& wish, bool isRepeated)
{
    constexpr int mostAttempts = 100;
    for (int attempt = 0; attempt < mostAttempts; ++attempt)
    {
        core::IniFile current;
        _settings.GetSettings({EntryFor(group), FleetGroup}, current);
        const std::uint64_t applied = AppliedVersion(current, group);
        if (wish.version < applied)
        {
            return Reject(wish, Rejection::Outdated,
                          "version " + std::to_string(applied) + " of this topic has been applied", applied);
        }
        if (wish.version == applied && !isRepeated)
        {
            return {};
        }
        if (wish.replaces)
        {
            Replace(group, wish);
            return {WishOutcome::Accepted, {wish.version, {}, "", 0}, ""};
        }
        if (Merge(group, wish, current))
        {
            return {WishOutcome::Accepted, {wish.version, {}, "", 0}, ""};
        }
    }
    return {WishOutcome::Failed, {}, "others change the same keys all the time"};
}

/// False when somebody else has changed what it was to change.
bool WishApplier::Merge(const std::string& group, const Desired& wish, const core::IniFile& current)
{
    const core::IniFile changes = ChangesOf(group, wish);
    core::IniFile expected;
    for (const auto& [name, values] : changes)
    {
        for (const auto& [key, value] : values)
        {
            if (current.HasValue(name, key))
            {
                expected.SetValue(name, key, current.GetValue(name, key));
            }
        }
    }
    return _settings.TestAndMerge(expected, changes);
}

void WishApplier::Replace(const std::string& group, const Desired& wish)
{
    _settings.OverwriteSettings({group}, ChangesOf(group, wish));
}

}  // namespace korlo::settings::mqtt
