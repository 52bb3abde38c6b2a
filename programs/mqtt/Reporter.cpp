#include "Reporter.h"

#include <algorithm>

#include "WishApplier.h"
#include "settings/server/GroupDiscriminator.h"

namespace korlo::settings::mqtt
{
namespace
{

constexpr std::size_t MostOnTheirWay = 32;
constexpr std::size_t MostInOneRead = 32;

std::int64_t TimestampMs()
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::system_clock::now().time_since_epoch())
        .count();
}

}  // namespace

Reporter::Reporter(BrokerLink& link, const TopicNames& topics, const GroupNameCollection& patterns,
                   Clock::duration rest)
    : _pLogger(core::Logger::GetLogger("MqttBridge")),
      _link(link),
      _topics(topics),
      _rest(rest),
      _patterns(patterns)
{
    _matcher.AddNamesAndPatterns(patterns);
}

bool Reporter::IsReported(const std::string& group) const
{
    return group != FleetGroup && !server::GroupDiscriminator::IsRestrictedGroup(group) && _matcher.SelectsAny({group});
}

void Reporter::OnBrokerLost()
{
    _phase = Away;
    _groups.clear();
    _ready.clear();
    _rests.clear();
    _onTheirWay.clear();
}

void Reporter::OnBrokerFound()
{
    _phase = Learning;
    _refusals.Renew();
}

void Reporter::OnHeld(const TopicNames::Parts& topic, std::string_view payload)
{
    if (_phase != Learning)
    {
        return;
    }
    if (!topic.group)
    {
        _link.Publish(_topics.ReportedAtLevel(topic.level), "", true);  // no report of this device
        return;
    }
    if (payload.empty())
    {
        return;
    }
    const Held held = ReadReported(payload);
    Group& group = _groups[*topic.group];
    group.version = held.version;
    group.fingerprint = held.fingerprint;
    group.isHeld = true;
}

void Reporter::OnAllHeldIsKnown()
{
    if (_phase == Learning)
    {
        _phase = Comparing;
        _mustCompare = true;
    }
}

void Reporter::OnSettingsFound()
{
    _mustCompare = _phase == Comparing || _phase == Reporting;
}

void Reporter::OnChanged(const GroupNameCollection& groups)
{
    if (_phase != Away && _phase != Learning)
    {
        std::for_each(groups.begin(), groups.end(), [this](const std::string& group) { NoteChange(group); });
    }
}

void Reporter::NoteChange(const std::string& group)
{
    const auto known = _groups.find(group);
    if (known != _groups.end() && known->second.isResting)
    {
        known->second.hasChanged = true;
        return;
    }
    _ready.insert(group);
}

GroupNameCollection Reporter::TakeNextRead()
{
    if (_phase == Away || _phase == Learning || _onTheirWay.size() >= MostOnTheirWay)
    {
        return {};
    }
    if (_mustCompare)
    {
        _mustCompare = false;
        _isComparing = true;
        if (!_patterns.empty())
        {
            return _patterns;
        }
        Compare({});
    }
    GroupNameCollection entries;
    while (!_ready.empty() && _reading.size() < MostInOneRead)
    {
        _reading.insert(_ready.extract(_ready.begin()));
    }
    std::for_each(_reading.begin(), _reading.end(),
                  [&entries](const std::string& group) { entries.insert(EntryFor(group)); });
    return entries;
}

void Reporter::OnReadFailed()
{
    _mustCompare = _mustCompare || _isComparing;
    _isComparing = false;
    _ready.merge(_reading);
    _reading.clear();
}

void Reporter::OnRead(const core::IniFile& settings, Clock::time_point now)
{
    if (_phase == Away || _phase == Learning)
    {
        _isComparing = false;  // the broker was lost meanwhile: all is to be compared anyway
        _reading.clear();
        return;
    }
    if (_isComparing)
    {
        Compare(settings);
        return;
    }
    for (const std::string& name : GroupNameCollection(std::move(_reading)))
    {
        const auto found = settings.Find(name);
        Send(name, found != settings.end() && IsReported(name) ? &found->second : nullptr, now);
    }
    _reading.clear();
}

/// Finds what differs, and what the broker holds of groups that are gone or are not reported any more. The contents are
/// read once more when it is their turn: so those of a thousand groups do not wait in memory for the broker.
void Reporter::Compare(const core::IniFile& settings)
{
    _isComparing = false;
    _phase = Reporting;
    for (const auto& [name, state] : settings)
    {
        const auto known = _groups.find(name);
        if ((known == _groups.end() || known->second.fingerprint != FingerprintOf(state)) && IsReported(name))
        {
            NoteChange(name);
        }
    }
    for (const auto& [name, group] : _groups)
    {
        if (group.isHeld && (settings.Find(name) == settings.end() || !IsReported(name)))
        {
            NoteChange(name);
        }
    }
}

/// @param pState null: there is nothing to report.
void Reporter::Send(const std::string& name, const State* pState, Clock::time_point now)
{
    const auto known = _groups.find(name);
    if (known != _groups.end() && known->second.isResting)
    {
        known->second.hasChanged = true;  // sent since it was asked for
        return;
    }
    if (pState != nullptr)
    {
        Report(name, *pState, now);
    }
    else if (known != _groups.end() && known->second.isHeld)
    {
        Publish(name, "", std::nullopt, now);
    }
    else if (known != _groups.end())
    {
        known->second.refused.reset();
        ForgetIfIdle(name);
    }
}

void Reporter::Report(const std::string& name, const State& state, Clock::time_point now)
{
    const std::uint64_t fingerprint = FingerprintOf(state);
    Group& group = _groups[name];
    if (group.fingerprint == fingerprint || group.refused == fingerprint)
    {
        return;
    }
    const std::optional<std::string> payload = ReportedPayload(state, group.version + 1, TimestampMs());
    if (payload)
    {
        ++group.version;
        Publish(name, *payload, fingerprint, now);
        return;
    }
    group.refused = fingerprint;
    if (_refusals.Allows())
    {
        _pLogger->Warning("Group '%s' is not reported: one of its keys is not UTF-8, and JSON cannot hold it",
                          name.c_str());
    }
}

/// @param payload empty: the group is gone.
void Reporter::Publish(const std::string& name, const std::string& payload, std::optional<std::uint64_t> fingerprint,
                       Clock::time_point now)
{
    Group& group = _groups[name];
    const BrokerLink::Publication publication = _link.Publish(_topics.ReportedOf(name), payload, true);
    if (publication.fate == BrokerLink::Publication::Sent)
    {
        _onTheirWay[publication.message] = {name, fingerprint, group.isHeld};
        group.fingerprint = fingerprint;
        group.refused.reset();
        group.isHeld = fingerprint.has_value();
        group.isResting = true;
        _rests.emplace_back(now + _rest, name);
        return;
    }
    group.refused = fingerprint;
    if (_refusals.Allows())
    {
        _pLogger->Warning("Group '%s' is not reported, until it changes: its message of %zu bytes: %s", name.c_str(),
                          payload.size(), publication.reason.c_str());
    }
}

bool Reporter::OnPublished(int message, const std::string& reason)
{
    const auto sent = _onTheirWay.find(message);
    if (sent == _onTheirWay.end())
    {
        return false;
    }
    const OnItsWay report = std::move(sent->second);
    _onTheirWay.erase(sent);
    const auto known = _groups.find(report.group);
    if (reason.empty() || known == _groups.end())
    {
        return true;
    }
    Group& group = known->second;
    if (group.fingerprint == report.fingerprint)
    {
        group.fingerprint.reset();
        group.refused = report.fingerprint;
        group.isHeld = report.wasHeld;
    }
    if (_refusals.Allows())
    {
        _pLogger->Warning("Group '%s' is not reported, until it changes: the broker refuses its message: %s",
                          report.group.c_str(), reason.c_str());
    }
    return true;
}

void Reporter::EndRests(Clock::time_point now)
{
    for (; !_rests.empty() && _rests.front().first <= now; _rests.pop_front())
    {
        const std::string& name = _rests.front().second;
        Group& group = _groups[name];
        group.isResting = false;
        if (group.hasChanged)
        {
            group.hasChanged = false;
            _ready.insert(name);
        }
        ForgetIfIdle(name);
    }
}

/// What is gone from the settings and the broker is not remembered for ever.
void Reporter::ForgetIfIdle(const std::string& name)
{
    const auto known = _groups.find(name);
    if (known != _groups.end() && !known->second.isHeld && !known->second.isResting && !known->second.refused)
    {
        _groups.erase(known);
    }
}

std::optional<Clock::time_point> Reporter::GetNextTime() const
{
    return _rests.empty() ? std::nullopt : std::optional(_rests.front().first);
}

}  // namespace korlo::settings::mqtt
